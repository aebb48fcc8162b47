// What a drawing paints, at build time: recorded, since a program that plays the record needs no
// reader of SVG, nor the memory that one takes; or in pixels, for desktops that show no drawings.
// Usage: verdo-record-icon IN.svg OUT.pic
//        verdo-record-icon IN.svg OUT.png SIZE
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPicture>
#include <QSvgRenderer>

namespace {

bool record(QSvgRenderer& drawing, const QString& path) {
  QPicture record;
  QPainter painter(&record);
  drawing.render(&painter, QRectF(0, 0, 1, 1));
  painter.end();
  return record.save(path);
}

bool paint(QSvgRenderer& drawing, const QString& path, int size) {
  QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  QPainter painter(&image);
  drawing.render(&painter);
  painter.end();
  return image.save(path, "PNG");
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "minimal");
  const QGuiApplication app(argc, argv);
  const QStringList arguments = QGuiApplication::arguments();
  if (arguments.size() != 3 && arguments.size() != 4) return 2;
  QSvgRenderer drawing(arguments[1]);
  if (!drawing.isValid()) return 1;
  const bool isDone = arguments.size() == 3 ? record(drawing, arguments[2])
                                            : paint(drawing, arguments[2], arguments[3].toInt());
  return isDone ? 0 : 1;
}
