#include "VerdoDriver/Platform/AgentWindow.h"
#include "VerdoDriver/Platform/SystemIcon.h"
#include "tests/Platform/macOS/FakeSystem.h"

#include <QImage>
#include <QRect>
#include <QRegion>

namespace verdo::test {
namespace {

using testing::ElementsAre;

class SystemIconTest : public FakeSystem {};

/// What is painted, which is whole boxes; the fake's symbol is 16 points wide and 12 high.
QRegion painted(const QIcon& icon, int scale) {
  const QImage image = icon.pixmap(QSize(18, 18), scale).toImage();
  EXPECT_EQ(image.size(), QSize(18, 18) * scale);
  QRegion region;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      if (image.pixel(x, y) == 0xff000000) region += QRect(x, y, 1, 1);
    }
  }
  return region;
}

TEST_F(SystemIconTest, ShowsAnotherSymbolOrInAnotherPlace) {
  const QIcon plain = systemIcon(Connection::online, false);
  EXPECT_TRUE(plain.isMask()) << "the menu bar must tint it";
  EXPECT_EQ(painted(plain, 1), QRegion(1, 3, 16, 12));
  EXPECT_EQ(painted(plain, 2), QRegion(2, 6, 32, 24));
  EXPECT_EQ(painted(systemIcon(Connection::online, true), 2),
            QRegion(2, 6, 32, 24) + QRegion(26, 26, 10, 10));

  fake::setSymbolsMissing(true);
  EXPECT_TRUE(systemIcon(Connection::online, false).isNull());
  fake::setSymbolsMissing(false);
}

TEST_F(SystemIconTest, ThePopoverSinksOrTheAppGetsADockIcon) {
  AgentWindow::becomeAgent();
  void* const view = fake::makeView();
  AgentWindow::present(reinterpret_cast<WId>(view));
  fake::releaseView(view);
  EXPECT_THAT(fake::calls(),
              ElementsAre("setActivationPolicy 1", "setBackgroundColor clear", "setOpaque 0",
                          "setHasShadow 1", "setLevel 3", "setHidesOnDeactivate 0",
                          "setCollectionBehavior 9", "activateIgnoringOtherApps 1"));
}

}  // namespace
}  // namespace verdo::test
