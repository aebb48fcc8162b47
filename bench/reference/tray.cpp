// The least that has a tray icon and a window with Qt: what the tray app is compared with. A line
// on standard input shows the window, or hides it. Usage: verdo-bench-tray [--nothing] (--nothing:
// ends at once)
#include <QApplication>
#include <QLabel>
#include <QSocketNotifier>
#include <QSystemTrayIcon>

#include <unistd.h>

int main(int argc, char** argv) {
  if (argc > 1) return 0;
  QApplication app(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);
  QPixmap red(22, 22);
  red.fill(Qt::red);
  QSystemTrayIcon icon{QIcon(red)};
  icon.show();
  QLabel label("A label");
  label.setFixedSize(360, 160);
  QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
  QObject::connect(&input, &QSocketNotifier::activated, [&] {
    char line[64];
    if (::read(STDIN_FILENO, line, sizeof line) <= 0) return QApplication::quit();
    label.setVisible(!label.isVisible());
  });
  return QApplication::exec();
}
