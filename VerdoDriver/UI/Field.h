#pragma once

#include <QLineEdit>

namespace verdo {

/// A field for one line, a row high, whose frame can be seen on a black palette too.
class Field : public QLineEdit {
  Q_OBJECT
 public:
  /// `name` is the accessible one.
  Field(const QString& name, QWidget* parent);

 protected:
  void paintEvent(QPaintEvent* event) override;
};

}  // namespace verdo
