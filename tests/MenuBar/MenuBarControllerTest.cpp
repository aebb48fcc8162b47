#include "VerdoDriver/MenuBar/MenuBarController.h"
#include "tests/Support/ScriptedModel.h"

#include <QApplication>

namespace verdo::test {
namespace {

TEST(MenuBarController, DrawsOverTheSystemsSymbolsOrShowsNothingWithoutOne) {
  ScriptedModel app;
  app.setUp();
  QPixmap symbol(18, 18);
  symbol.fill(Qt::black);
  bool hasSymbol = true;
  const MenuBarController menuBar(
      app.model, std::make_unique<QWidget>(),
      {.icon = [&](Connection, bool) { return hasSymbol ? QIcon(symbol) : QIcon(); },
       .present = {}});
  const auto shown = [] {
    QImage icon;
    for (const QWidget* window : QApplication::topLevelWidgets()) {
      if (window->windowTitle() == "Verdo Driver") {
        icon = window->windowIcon().pixmap(18, 18).toImage();
      }
    }
    return icon;
  };
  EXPECT_EQ(shown().pixelColor(0, 0), QColor(Qt::black));
  hasSymbol = false;
  app.goOnline();
  spin();
  EXPECT_FALSE(shown().isNull());
  EXPECT_NE(shown().pixelColor(0, 0), QColor(Qt::black));
}

}  // namespace
}  // namespace verdo::test
