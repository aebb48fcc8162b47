#include "VerdoDriver/UI/Field.h"

#include "VerdoDriver/UI/Look.h"

namespace verdo {

Field::Field(const QString& name, QWidget* parent) : QLineEdit(parent) {
  setFixedHeight(Look::kRow);
  setAccessibleName(name);
  setMaxLength(2048);
  setTextMargins(Look::kGrid / 2, 0, Look::kGrid / 2, 0);
}

void Field::paintEvent(QPaintEvent* event) {
  QLineEdit::paintEvent(event);
  Look::frameOnBlack(*this);
}

}  // namespace verdo
