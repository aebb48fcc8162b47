// Records what a drawing paints, at build time: a program that plays the record needs no reader of
// SVG, nor the memory that one takes. Usage: verdo-record-icon IN.svg OUT.pic
#include <QGuiApplication>
#include <QPainter>
#include <QPicture>
#include <QSvgRenderer>

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "minimal");
  const QGuiApplication app(argc, argv);
  const QStringList arguments = QGuiApplication::arguments();
  if (arguments.size() != 3) return 2;
  QSvgRenderer drawing(arguments[1]);
  QPicture record;
  QPainter painter(&record);
  drawing.render(&painter, QRectF(0, 0, 1, 1));
  painter.end();
  return drawing.isValid() && record.save(arguments[2]) ? 0 : 1;
}
