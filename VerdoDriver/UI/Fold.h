#pragma once

#include "VerdoDriver/UI/Button.h"

#include <QVBoxLayout>

namespace verdo {

/// The line that opens and folds a section: its name, and at the right what is worth knowing of it
/// while it is folded.
class FoldButton : public Button {
  Q_OBJECT
 public:
  FoldButton(const QString& title, QWidget* parent);

  bool isOpen() const { return isOpen_; }
  void setOpen(bool open);
  void setFact(const QString& fact);
  QSize sizeHint() const override;

 Q_SIGNALS:
  void turned(bool isOpen);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QString fact_;
  bool isOpen_ = false;
};

/// A section that can be folded. What it holds goes into body().
class Fold : public QWidget {
  Q_OBJECT
 public:
  Fold(const QString& title, QWidget* parent);

  QVBoxLayout* body() { return rows_; }
  QWidget* bodyWidget() { return body_; }
  bool isOpen() const { return heading_->isOpen(); }
  void setOpen(bool open) { heading_->setOpen(open); }
  void setFact(const QString& fact) { heading_->setFact(fact); }

 Q_SIGNALS:
  void turned(bool isOpen);

 private:
  FoldButton* heading_;
  QWidget* body_;
  QVBoxLayout* rows_;
};

}  // namespace verdo
