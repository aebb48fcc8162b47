#include "VerdoDriver/UI/Hairline.h"

#include "VerdoDriver/UI/Look.h"

#include <QPainter>

namespace verdo {

Hairline::Hairline(QWidget* parent) : QWidget(parent) { setFixedHeight(1); }

void Hairline::paintEvent(QPaintEvent*) {
  QPainter(this).fillRect(rect(), Look::lineColor(palette()));
}

}  // namespace verdo
