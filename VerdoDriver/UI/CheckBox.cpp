#include "VerdoDriver/UI/CheckBox.h"

#include "VerdoDriver/UI/Look.h"

#include <QStyleOptionButton>

namespace verdo {

CheckBox::CheckBox(const QString& text, QWidget* parent) : QCheckBox(text, parent) {
  setFixedHeight(Look::kRow);
}

void CheckBox::initStyleOption(QStyleOptionButton* option) const {
  QCheckBox::initStyleOption(option);
  // The frame is drawn in a darker shade of this, which on a dark window is no frame at all.
  if (palette().window().color().lightness() > 128) return;
  option->palette.setColor(QPalette::Window, QColor(0xc0, 0xc0, 0xc0));
}

}  // namespace verdo
