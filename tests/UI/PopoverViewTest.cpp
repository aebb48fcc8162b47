#include "LocalService/LocalService.h"
#include "VerdoDriver/Model/Headline.h"
#include "tests/Support/PopoverWindow.h"

#include <QAccessible>
#include <QClipboard>
#include <QGuiApplication>
#include <QTimer>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;

class PopoverViewTest : public testing::Test {
 protected:
  bool isTicking() const {
    return window.view->findChild<QTimer*>({}, Qt::FindDirectChildrenOnly)->isActive();
  }
  void show() {
    window.show();
    spin();
  }

  const AppLogCapture appLog;
  ScriptedModel app;
  PopoverWindow window{app.model};
};

TEST_F(PopoverViewTest, ConnectsWithoutAKeyOrNotWithOne) {
  app.askStore();
  show();
  EXPECT_FALSE(window.button("Connect to website")->isEnabled());
  EXPECT_TRUE(window.label("Type your DeepSeek key first"));
  window.type("DeepSeek key", "  ");
  EXPECT_FALSE(window.button("Connect to website")->isEnabled());
  for (const char* loopback :
       {"http://127.0.0.1:8080", "http://localhost", "https://verdo.local"}) {
    window.type("Server URL", loopback);
    EXPECT_FALSE(window.button("Allow plain http")) << loopback;
  }
  window.type("Server URL", "HTTP://verdo.local/");
  EXPECT_TRUE(window.button("Allow plain http"));
  window.type("Server URL", "HTTPS://verdo.example/");
  window.type("DeepSeek key", " sk-1234 ");
  window.press("Connect to website");
  EXPECT_TRUE(window.label("Asking the website for a code…"));
  ASSERT_EQ(app.pairing->starts.size(), 1u);

  app.pairing->starts.back().answer(PairingStart{"code", "AB-CD", "/pair", 600s, 5s});
  spin();
  EXPECT_TRUE(window.label("AB-CD") && window.label("10:00"));
  app.opened.clear();
  window.press("Open the approve page");
  EXPECT_EQ(app.opened, std::vector<std::string>{"https://verdo.example/pair"});
  app.approve();
  EXPECT_TRUE(window.label("Checking the connection…"));
  ASSERT_TRUE(spinUntil([&] { return !app.factory->runs.empty(); }));
  EXPECT_EQ(app.factory->runs.back()->config.llmKey, "sk-1234");

  // A wrong key costs another key, which the same button takes.
  app.factory->runs.back()->end(ExitReason::llmKeyRejected(""));
  ASSERT_TRUE(spinUntil([&] { return window.button("Try this key") != nullptr; }));
  EXPECT_TRUE(window.label("DeepSeek rejected the key ····1234 — Nothing saved"));
  EXPECT_EQ(window.field("DeepSeek key")->text(), " sk-1234 ");
  window.press("Try this key");
  ASSERT_TRUE(spinUntil([&] { return app.factory->runs.size() == 2; }));
  EXPECT_EQ(app.pairing->starts.size(), 1u);
}

TEST_F(PopoverViewTest, SavesNoKeyBesideTheTokenOrSaysNothingOfIt) {
  app.setUp();
  show();
  EXPECT_FALSE(window.field("DeepSeek key")->isVisible());
  window.press("Setup");
  EXPECT_TRUE(window.button("Connect to website")->isEnabled());
  EXPECT_FALSE(window.button("Save key"));
  window.type("DeepSeek key", "sk-other");
  window.press("Save key");
  EXPECT_TRUE(window.label("Checking the key…"));
  ASSERT_TRUE(spinUntil([&] { return !app.factory->runs.empty(); }));
  EXPECT_EQ(app.factory->runs.back()->config.token, "token-5a1c");
  app.factory->runs.back()->end(ExitReason::llmKeyRejected(""));
  ASSERT_TRUE(spinUntil([&] { return window.label("DeepSeek rejected the key") != nullptr; }));
  EXPECT_FALSE(window.label("Checking the key…"));
  EXPECT_EQ(window.field("DeepSeek key")->text(), "sk-other");
}

TEST_F(PopoverViewTest, WorksWhileHidden) {
  app.setUp();
  show();
  app.goOnline();
  EXPECT_FALSE(isTicking());
  app.observer()->driverBusyLanesChanged({"ada:mail"});
  ASSERT_TRUE(spinUntil([&] { return window.label("mail") != nullptr; }));
  EXPECT_TRUE(isTicking());

  window.hide();
  EXPECT_FALSE(isTicking());
  app.clock->advance(60s);
  bool told = false;
  QObject::connect(&app.model, &AppModel::changed, &window, [&] { told = true; });
  app.observer()->driverBusyLanesChanged({"ada:crm", "ada:mail"});
  ASSERT_TRUE(spinUntil([&] { return told; }));
  EXPECT_FALSE(isTicking());
  for (const auto* label : window.view->findChildren<QLabel*>()) EXPECT_NE(label->text(), "crm");

  // What it shows then is right nevertheless: the lane's time began while nobody looked.
  app.clock->advance(5s);
  show();
  EXPECT_TRUE(window.label("crm") && window.label("00:05") && window.label("01:05"));
  app.observer()->driverBusyLanesChanged({});
  ASSERT_TRUE(spinUntil([&] { return !isTicking(); }));
}

TEST_F(PopoverViewTest, TakesTextsOfTheServerForMarkup) {
  const std::string evil = "<b>x</b><img src='file:///etc/passwd'>\n\x1b[1m\u202e";
  app.setUp();
  show();
  app.goOnline(evil);
  app.observer()->driverBusyLanesChanged({"ada:" + evil});
  app.observer()->driverJobFinished(1, evil, 1, evil + std::string(100'000, 'x'));
  ASSERT_TRUE(spinUntil([&] { return window.label("Last error") != nullptr; }));
  app.pair(evil);
  int shown = 0;
  for (const auto* label : window.view->findChildren<QLabel*>()) {
    if (!label->pixmap().isNull() || label->text().isEmpty()) continue;
    shown += label->text().contains("<b>") ? 1 : 0;
    EXPECT_LT(label->text().size(), 1000);
    EXPECT_FALSE(label->text().contains(QChar(0x202e)) || label->text().contains('\x1b'));
    if (label->text().contains('<')) {
      EXPECT_EQ(label->textFormat(), Qt::PlainText) << label->text().toStdString();
    }
    EXPECT_EQ(label->toolTip(), "");
  }
  EXPECT_GE(shown, 4);
}

TEST_F(PopoverViewTest, HasAControlWithoutNameOrOutOfTheReachOfKeys) {
  app.setUp();
  show();
  window.press("Setup");
  window.press("Options");
  window.type("DeepSeek key", "sk-other");
  app.goOnline();
  app.isProgramReplaced = true;
  app.model.releases().lookAtProgram();
  app.model.checkup().begin();
  app.doctor().end();
  ASSERT_TRUE(spinUntil([&] { return window.button("Check again") != nullptr; }));
  int controls = 0;
  for (const auto* control : window.view->findChildren<QWidget*>()) {
    if (!control->isVisible() || !(control->focusPolicy() & Qt::TabFocus)) {
      const auto* button = qobject_cast<const QAbstractButton*>(control);
      EXPECT_FALSE(button && button->isVisible()) << button->text().toStdString();
      continue;
    }
    ++controls;
    const auto* iface = QAccessible::queryAccessibleInterface(const_cast<QWidget*>(control));
    ASSERT_TRUE(iface) << control->metaObject()->className();
    EXPECT_FALSE(iface->text(QAccessible::Name).isEmpty()) << control->metaObject()->className();
  }
  EXPECT_GE(controls, 19);

  // The tab key goes down the screen.
  QPoint last(-1, -1);
  const QWidget* const first = window.button("Restart");
  const QWidget* control = first;
  do {
    if (control->isVisible() && (control->focusPolicy() & Qt::TabFocus)) {
      const QPoint place = control->mapTo(&window, control->rect().center());
      EXPECT_TRUE(place.y() > last.y() || (place.y() == last.y() && place.x() > last.x()))
          << control->accessibleName().toStdString() << control->metaObject()->className();
      last = place;
    }
    control = control->nextInFocusChain();
  } while (control != first);
}

TEST_F(PopoverViewTest, QuitsWhileBusyWithoutAskingOrAsksTwice) {
  app.setUp();
  show();
  app.goOnline();
  app.observer()->driverBusyLanesChanged({"ada:crm", "ada:mail"});
  spin();
  window.press("Quit");
  EXPECT_TRUE(window.label("2 jobs are running. Quit anyway?"));
  EXPECT_EQ(window.quits, 0);
  window.press("Cancel");
  window.press("Quit");
  window.press("Quit");
  EXPECT_EQ(window.quits, 1);

  // Nor again while the driver stops, whoever had it stopped: for quit, this may take its time.
  window.press("Quit");
  app.model.supervisor().stop(75s);
  ASSERT_TRUE(spinUntil([&] { return window.label("Stopping…") != nullptr; }));
  EXPECT_FALSE(window.label("Quit anyway?") || window.button("Stop"));
  window.press("Quit");
  EXPECT_EQ(window.quits, 2);
  app.end(ExitReason::stopped());
  EXPECT_TRUE(spinUntil([&] { return window.button("Start") != nullptr; }));
  app.goOnline();

  app.observer()->driverBusyLanesChanged({});
  spin();
  window.press("Quit");
  EXPECT_EQ(window.quits, 3);
  app.model.stopDriver();  // no clock shows it
  EXPECT_TRUE(spinUntil([&] { return window.label("Stopping…") != nullptr; }));
}

TEST_F(PopoverViewTest, RestartsUnderJobsUnaskedOrWithoutNeed) {
  app.setUp();
  show();
  app.goOnline();
  app.model.releases().updateWasNamed();
  ASSERT_TRUE(spinUntil([&] { return window.label("A new version is available") != nullptr; }));
  EXPECT_FALSE(window.button("Restart the app"));
  app.isProgramReplaced = true;
  app.model.releases().lookAtProgram();
  ASSERT_TRUE(spinUntil([&] { return window.button("Restart the app") != nullptr; }));
  EXPECT_FALSE(window.label("is available"));
  app.observer()->driverBusyLanesChanged({"ada:crm", "ada:mail"});
  spin();
  window.press("Restart the app");
  EXPECT_TRUE(window.label("2 jobs are running and will be ended."));
  window.press("Cancel");
  EXPECT_EQ(window.restarts, 0);
  window.press("Restart the app");
  window.press("Restart the app");
  EXPECT_EQ(window.restarts, 1);
  app.isProgramReplaced = false;  // it was removed
  app.observer()->driverBusyLanesChanged({});
  spin();
  window.press("Restart the app");
  EXPECT_EQ(window.restarts, 1);
  EXPECT_TRUE(spinUntil([&] { return !window.button("Restart the app"); }));
}

TEST_F(PopoverViewTest, ChecksOutOfSightOrOutOfReach) {
  const auto settle = [&] {
    for (int i = 0; i < 3; ++i) spin();
  };
  show();
  window.press("Options");
  EXPECT_TRUE(window.button("Check the driver"));  // also without a setup
  app.setUp();
  app.goOnline();
  settle();
  EXPECT_FALSE(window.button("Something wrong? Check"));
  app.observer()->driverRetrying("gone", 15);
  settle();
  EXPECT_TRUE(window.button("Something wrong? Check"));
  app.end(ExitReason::tokenRevoked(""));
  settle();
  window.press("Something wrong? Check");
  auto& doctor = app.doctor();
  settle();
  EXPECT_FALSE(window.button("Something wrong? Check") || window.button("Copy report"));
  EXPECT_TRUE(window.label("Checking…"));
  EXPECT_EQ(window.focusWidget(), window.button("Cancel"));

  // What begins a browser may take the focus from the popover, which hides it.
  window.hide();
  doctor.find(Finding::ok("proxy", "none is used"));
  doctor.find(Finding::failed("<b>TLS</b>", "not trusted", "Do not go on.", "who said so"));
  doctor.find(Finding::skipped("hello", "TLS has failed"));
  doctor.end();
  ASSERT_TRUE(spinUntil([&] { return app.model.checkup().state() == Checkup::State::done; }));
  show();
  EXPECT_TRUE(window.label("One check has failed."));
  for (const char* text : {"none is used", "<b>TLS</b>", "not trusted", "→ Do not go on.",
                           "who said so", "not tried: TLS has failed"}) {
    EXPECT_TRUE(window.label(text)) << text;
  }
  for (const auto& [sign, name] : {std::pair("✓", "ok"), {"✗", "failed"}, {"–", "skipped"}}) {
    EXPECT_EQ(window.label(sign)->accessibleName(), name);
  }
  window.press("Copy report");
  EXPECT_TRUE(window.button("Copied"));
  EXPECT_EQ(QGuiApplication::clipboard()->text().toStdString(), app.model.checkup().report());
  EXPECT_EQ(doctor.stops, 0);

  window.press("Check again");
  settle();
  EXPECT_FALSE(window.label("not trusted"));
  auto& second = app.doctor(2);
  second.end();
  ASSERT_TRUE(spinUntil([&] { return window.label("All that is needed works.") != nullptr; }));
  EXPECT_TRUE(window.button("Copy report"));
  window.press("Done");
  settle();
  EXPECT_FALSE(window.button("Check again"));
  window.press("Something wrong? Check");
  auto& third = app.doctor(3);
  settle();
  window.press("Cancel");
  EXPECT_EQ(third.stops, 1);
}

TEST_F(PopoverViewTest, GoesOnSayingWhatIsNotTrueAnyMore) {
  app.askStore();
  show();
  app.pair();
  app.clock->advance(5s);
  app.pairing->polls.back().answer(PairingPoll{PairingPoll::Status::denied, "", ""});
  spin();
  EXPECT_TRUE(window.label("Denied in the browser"));
  window.type("DeepSeek key", "sk-1234");
  window.press("Connect to website");
  window.press("Cancel");
  EXPECT_FALSE(window.label("Denied in the browser"));

  app.setUp();
  window.press("Setup");
  window.type("DeepSeek key", "sk-other");
  window.press("Save key");
  ASSERT_TRUE(spinUntil([&] { return !app.factory->runs.empty(); }));
  app.factory->runs.back()->end(ExitReason::llmKeyRejected(""));
  ASSERT_TRUE(spinUntil([&] { return window.label("DeepSeek rejected") != nullptr; }));
  app.model.removeKey();
  EXPECT_TRUE(spinUntil([&] { return window.label("DeepSeek rejected") == nullptr; }));
  ASSERT_TRUE(spinUntil([&] { return !app.model.hasKey(); }));

  app.goOnline();
  app.observer()->driverRetrying("gone", 15);
  app.observer()->driverSharesSpaces("process 7");
  ASSERT_TRUE(spinUntil([&] { return window.label("Another driver (process 7)") != nullptr; }));
  EXPECT_TRUE(window.label("gone — retrying in 15 s"));
  app.clock->advance(15s);
  EXPECT_EQ(headlineOf(app.model).detail, "gone — retrying");
  app.observer()->driverRecovered();
  app.observer()->driverSharesSpaces("");
  EXPECT_TRUE(
      spinUntil([&] { return !window.label("retrying") && !window.label("Another driver"); }));
}

TEST_F(PopoverViewTest, RemovesEverythingUnaskedOrUnnamed) {
  app.setUp("http://elsewhere.example");
  app.model.settings().setAllowInsecure(true);
  show();
  window.press("Setup");
  EXPECT_TRUE(window.button("Allow plain http")->isChecked());
  window.press("Options");
  window.press("Remove everything…");
  for (const char* what : {"token", "key", "login", "settings", "task spaces", "files of jobs"}) {
    EXPECT_TRUE(window.label(what)) << what;
  }
  window.press("Cancel");
  EXPECT_FALSE(app.model.isRemoving());
  window.press("Remove everything…");
  for (auto* button : window.view->findChildren<QAbstractButton*>()) {
    if (button->isVisible() && button->text() == "Remove" && button->accessibleName() == "") {
      button->click();
    }
  }
  spin();
  EXPECT_FALSE(window.button("Connect to website")->isEnabled());
  ASSERT_TRUE(spinUntil([&] { return window.label("Everything was removed.") != nullptr; }));
  ASSERT_TRUE(spinUntil([&] { return window.label("Not set up") != nullptr; }));
  EXPECT_EQ(window.field("Server URL")->text(), ScriptedModel::kServer);
  window.type("Server URL", "http://elsewhere.example");
  EXPECT_FALSE(window.button("Allow plain http")->isChecked());
  window.type("Server URL", ScriptedModel::kServer);
  window.type("DeepSeek key", "sk-1234");
  window.press("Connect to website");
  EXPECT_FALSE(window.label("Everything was removed."));
}

TEST_F(PopoverViewTest, HidesThatChoicesAreLostOrThatTheyAreNotAnyMore) {
  show();
  std::filesystem::create_directory(app.home / "settings");
  app.model.settings().setAutoStart(false);
  ASSERT_TRUE(spinUntil([&] { return window.label("The settings cannot be saved") != nullptr; }));
  std::filesystem::remove(app.home / "settings");
  app.model.popoverOpened();
  EXPECT_TRUE(spinUntil([&] { return !window.label("The settings cannot be saved"); }));
}

TEST_F(PopoverViewTest, LeavesAUserWithoutABrowserToolAloneOrNamesTwo) {
  local::LocalService service;
  service.start();
  service.manifest().patch({{"ego_install_url", "http://elsewhere.example/"}});
  app.setUp(service.url());
  show();
  app.goOnline();
  app.end(ExitReason::noExecutor("executor not found: ego-browser"));
  ASSERT_TRUE(spinUntil([&] { return window.button("Start") != nullptr; }));
  EXPECT_TRUE(window.label("The package verdo-browser will do, too."));
  EXPECT_FALSE(window.button("Install"));
  service.manifest().patch({{"ego_install_url", service.url() + "/ego"}});
  app.model.releases().refresh();
  ASSERT_TRUE(spinUntil([&] { return window.button("Install") != nullptr; }));
  EXPECT_FALSE(window.label("verdo-browser"));
  app.opened.clear();
  window.press("Install");
  EXPECT_EQ(app.opened, std::vector<std::string>{service.url() + "/ego"});
}

}  // namespace
}  // namespace verdo::test
