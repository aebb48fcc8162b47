#pragma once

#include <QCheckBox>

namespace verdo {

/// A check box, a row high, whose frame can be seen on a dark palette too.
class CheckBox : public QCheckBox {
  Q_OBJECT
 public:
  CheckBox(const QString& text, QWidget* parent);

 protected:
  void initStyleOption(QStyleOptionButton* option) const override;
};

}  // namespace verdo
