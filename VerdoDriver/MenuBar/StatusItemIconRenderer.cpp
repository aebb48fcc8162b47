#include "VerdoDriver/MenuBar/StatusItemIconRenderer.h"

#include <QPainter>
#include <QPicture>
#include <QString>
#include <cmath>

namespace verdo::StatusItemIconRenderer {
namespace {

/// What trays ask for, px.
constexpr int kSizes[] = {16, 18, 22, 24, 32, 44, 48, 64};

/// The dot's diameter, as a part of the icon's size: 5 of 18 points.
constexpr double kBadge = 5.0 / 18;

/// The shape, one pixel high and wide.
QPicture shapeOf(Connection connection) {
  QPicture shape;
  shape.load(QStringLiteral(":/icons/%1.pic").arg(QLatin1String(nameOf(connection))));
  return shape;
}

void drawBadge(QPainter& painter, double size) {
  const double diameter = std::max(4.0, size * kBadge);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(QPen(Qt::white, diameter / 5));
  painter.setBrush(QColor(0xc2, 0x41, 0x0c));
  const double edge = size - diameter - diameter / 10;
  painter.drawEllipse(QRectF(edge, edge, diameter, diameter));
}

}  // namespace

QPixmap pixmap(Connection connection, bool updateAvailable, int size, double scale) {
  const int pixels = static_cast<int>(std::lround(size * scale));
  QPixmap image(pixels, pixels);
  image.fill(Qt::transparent);
  QPainter painter(&image);
  painter.scale(pixels, pixels);
  painter.drawPicture(0, 0, shapeOf(connection));
  painter.resetTransform();
  if (updateAvailable) drawBadge(painter, pixels);
  painter.end();
  image.setDevicePixelRatio(scale);
  return image;
}

QIcon icon(Connection connection, bool updateAvailable) {
  QIcon icon;
  for (const int size : kSizes) icon.addPixmap(pixmap(connection, updateAvailable, size, 1));
  return icon;
}

}  // namespace verdo::StatusItemIconRenderer
