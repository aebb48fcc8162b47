#pragma once

#include <QPushButton>
#include <QVBoxLayout>

namespace verdo {

/// The line that opens and folds a section: its name, and at the right what is worth knowing of it
/// while it is folded.
class FoldButton : public QPushButton {
  Q_OBJECT
 public:
  FoldButton(const QString& title, QWidget* parent);

  void setFact(const QString& fact);
  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QString fact_;
};

/// A section that can be folded. What it holds goes into body().
class Fold : public QWidget {
  Q_OBJECT
 public:
  Fold(const QString& title, QWidget* parent);

  QVBoxLayout* body() { return rows_; }
  QWidget* bodyWidget() { return body_; }
  bool isOpen() const { return heading_->isChecked(); }
  void setOpen(bool open) { heading_->setChecked(open); }
  void setFact(const QString& fact) { heading_->setFact(fact); }

 Q_SIGNALS:
  void turned(bool isOpen);

 private:
  FoldButton* heading_;
  QWidget* body_;
  QVBoxLayout* rows_;
};

}  // namespace verdo
