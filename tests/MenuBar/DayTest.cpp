#include "VerdoDriver/MenuBar/MenuBarController.h"
#include "VerdoDriver/UI/PopoverView.h"
#include "tests/Support/ScriptedModel.h"

#include <QApplication>
#include <QBackingStore>
#include <QHideEvent>
#include <QScreen>

/// Only there in programs that are checked for addresses. malloc's own figure says little: it
/// counts what it keeps for threads that have ended.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace verdo::test {
namespace {

QStringList warnings;

void keepWarning(QtMsgType, const QMessageLogContext& context, const QString& text) {
  const bool isOurLog = QByteArray(context.category).startsWith("verdo.");
  // What the platform without a display says of windows.
  if (!isOurLog && !text.contains("This plugin does not support")) warnings << text;
}

/// What an app goes through in a day of a person, in rounds.
class Day : public testing::Test {
 protected:
  Day() {
    previous_ = qInstallMessageHandler(keepWarning);
    warnings.clear();
  }
  ~Day() override { qInstallMessageHandler(previous_); }

  /// Four changes of the driver's state and an opening of the popover.
  void round() {
    app.goOnline();
    app.observer()->driverJobStarted(7, "ada:mail", "browser");
    app.observer()->driverBusyLanesChanged({"ada:mail"});
    spin();
    menuBar.showPopover();
    spin();
    app.observer()->driverBusyLanesChanged({});
    app.observer()->driverJobFinished(7, "ada:mail", 1, "the page did not answer");
    spin();
    app.observer()->driverRetrying("poll failed", 30);
    app.clock->advance(std::chrono::seconds(1));
    spin();
    app.end(ExitReason::serverUnreachable("gone"));
    menuBar.hidePopover();
    app.model.stopDriver();
    spin();
  }
  void pairAnew() {
    app.pair();
    app.approve();
    for (const auto& reason : {ExitReason::clean(), ExitReason::tokenRevoked("")}) {
      ASSERT_TRUE(spinUntil([&] { return !app.factory->runs.empty(); }));
      const auto run = app.factory->runs.back();
      app.factory->runs.clear();
      run->end(reason);
    }
    ASSERT_TRUE(spinUntil(
        [&] { return std::holds_alternative<DriverStopped>(app.model.supervisor().state()); }));
  }
  void lockAndUnlock() {
    app.secrets->isLocked = true;
    app.askStore();
    app.secrets->isLocked = false;
    app.askStore();
  }
  /// What the parts that stand in for the world have kept.
  void forget() {
    app.factory->runs.clear();
    app.pairing->starts.clear();
    app.pairing->polls.clear();
    app.opened.clear();
    app.log->clear();
  }

  ScriptedModel app;
  PopoverHost host{.quit = [] {},
                   .restart = [] {},
                   .shape = [](Connection, int, double) { return QPixmap(); },
                   .defaultServerURL = ScriptedModel::kServer};
  MenuBarController menuBar{app.model, std::make_unique<PopoverView>(app.model, host)};

 private:
  QtMessageHandler previous_;
};

TEST_F(Day, LeavesMemoryBehindOrComplaints) {
  app.setUp();
  const bool isCounted = __sanitizer_get_current_allocated_bytes != nullptr;
  const int rounds = isCounted ? 220 : 60;
  constexpr int kWarm = 20;                  // by then the toolkit has cached what it draws
  constexpr std::size_t kPicture = 100'000;  // it holds one for a while, and then for a while not
  std::size_t before = 0;
  for (int i = 0; i < rounds; ++i) {
    if (isCounted && i == kWarm) before = __sanitizer_get_current_allocated_bytes();
    round();
    if (i % 5 < 2) pairAnew();
    if (i % 5 == 2) lockAndUnlock();
    forget();
  }
  if (isCounted) {
    EXPECT_LT(__sanitizer_get_current_allocated_bytes(), before + kPicture);
  }
  EXPECT_EQ(warnings.join("; ").toStdString(), "");
}

TEST_F(Day, KeepsThePictureOfAHiddenPopoverOrShowsNone) {
  menuBar.showPopover();
  spin();
  const QWidget* const window = QApplication::activeWindow();
  ASSERT_TRUE(window && window->backingStore());
  const auto onScreen = [&] { return window->screen()->grabWindow(window->winId()).toImage(); };
  const QImage first = onScreen();
  EXPECT_EQ(first.size(), window->size());
  QHideEvent minimised;
  QCoreApplication::sendEvent(const_cast<QWidget*>(window), &minimised);
  EXPECT_EQ(onScreen(), first) << "once minimised";
  menuBar.hidePopover();
  spin();
  EXPECT_LE(window->backingStore()->size().width(), 1);
  menuBar.showPopover();
  spin();
  EXPECT_EQ(onScreen(), first) << "shown again";
}

}  // namespace
}  // namespace verdo::test
