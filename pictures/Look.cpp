#include "LocalService/LocalService.h"
#include "VerdoDriver/UI/Fold.h"
#include "VerdoDriver/UI/Label.h"
#include "tests/Support/PopoverWindow.h"

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QPalette>
#include <QTimerEvent>
#include <functional>

#include <fmt/format.h>

// Draws the popover in every state it can be in, for people to look at, and sees to it that none of
// its texts is cut off.
namespace verdo::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kLong =
    "poll failed (GET /api/driver/poll?wait=25): Failed to connect to "
    "a-rather-long-name-of-a-computer.internal.verdo.example port 443 after 30001 ms: Couldn't "
    "connect to server";

struct Scene {
  const char* name;
  std::function<void(ScriptedModel&, PopoverWindow&)> play;
};

void stopped(ScriptedModel& app, const ExitReason& reason) {
  app.setUp();
  app.goOnline();
  app.end(reason);
}

void busy(ScriptedModel& app, const std::vector<std::string>& lanes) {
  app.setUp();
  app.goOnline();
  for (int i = 0; i < 1204; ++i) app.observer()->driverJobFinished(i + 1, "mail", 0, {});
  app.observer()->driverBusyLanesChanged({lanes.front()});
  spin();
  app.clock->advance(125s);
  app.observer()->driverBusyLanesChanged(lanes);
  spin();
  app.clock->advance(9s);
}

void legacy(ScriptedModel& app) {
  const auto put = [&](const std::string& name, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(app.home / name).parent_path());
    app.home.write(name, content);
  };
  put("Library/LaunchAgents/com.verdo.driver.plist", "");
  put(".config/verdo/driver.env",
      "VERDO_SERVER_URL=https://verdo.example\nVERDO_DRIVER_TOKEN=token-1234\n"
      "VERDO_LLM_API_KEY=key-5678\n");
  app.model.legacyImport().detect();
}

/// A check that has come so far.
void check(ScriptedModel& app, const std::vector<Finding>& findings, bool isOver = true) {
  app.model.checkup().begin();
  auto& doctor = app.doctor();
  for (const auto& finding : findings) doctor.find(finding);
  if (isOver) doctor.end();
  EXPECT_TRUE(spinUntil([&] {
    return app.model.checkup().findings().size() == findings.size() &&
           (app.model.checkup().state() == Checkup::State::done) == isOver;
  }));
}

std::vector<Finding> well() {
  return {Finding::ok("configuration", "complete"),
          Finding::ok("server address", ScriptedModel::kServer),
          Finding::ok("name resolution", "verdo.example resolves", "192.0.2.1"),
          Finding::ok("proxy", "none is used"),
          Finding::ok("connection", "made"),
          Finding::ok("TLS", "the server's certificate is trusted"),
          Finding::warning("clock", "this computer's clock is 60 minutes ahead of the server's",
                           "Set the clock, or have it set over the network (timedatectl set-ntp "
                           "true): links and certificates run out at the wrong time."),
          Finding::ok("hello", "the service knows this driver, for 4 job(s) at once"),
          Finding::ok("executor", "/usr/bin/ego-browser answers, with 2 task space(s)"),
          Finding::ok("LLM key", "the provider accepts it"),
          Finding::ok("secret store", "the keyring is open", "gnome-keyring-daemon"),
          Finding::ok("disk", "81204 MB free in /home/ada/.cache/verdo")};
}

std::vector<Finding> unreachable(const std::string& said) {
  auto findings = well();
  findings.resize(4);
  findings.push_back(Finding::failed(
      "connection", "port 443 of the server cannot be reached",
      "Check that this computer is online, and that no firewall (or a missing proxy or VPN) is in "
      "the way.",
      said));
  for (const char* name : {"TLS", "clock", "hello"}) {
    findings.push_back(Finding::skipped(name, "connection has failed"));
  }
  return findings;
}

const std::vector<Scene>& scenes() {
  static const std::vector<Scene> all{
      {"not-set-up", [](auto& app, auto&) { app.askStore(); }},
      {"key-typed",
       [](auto& app, auto& window) {
         app.askStore();
         window.type("DeepSeek key", "sk-012345678");
       }},
      {"plain-http",
       [](auto& app, auto& window) {
         app.askStore();
         window.type("Server URL", "http://verdo.local:8080");
       }},
      {"asking-for-code",
       [](auto& app, auto&) {
         app.askStore();
         app.model.startPairing(ScriptedModel::kServer, false, "sk-typed");
       }},
      {"pairing-code",
       [](auto& app, auto&) {
         app.askStore();
         app.pair();
       }},
      {"pairing-connecting",
       [](auto& app, auto&) {
         app.askStore();
         app.pair();
         app.approve();
       }},
      {"pairing-failed",
       [](auto& app, auto&) {
         app.askStore();
         app.pair();
         app.clock->advance(5s);
         app.pairing->polls.back().answer(PairingPoll{PairingPoll::Status::denied, "", ""});
       }},
      {"key-rejected-try-again",
       [](auto& app, auto& window) {
         app.askStore();
         app.pair();
         app.approve();
         EXPECT_TRUE(spinUntil([&] { return !app.factory->runs.empty(); }));
         app.factory->runs.back()->end(ExitReason::llmKeyRejected(""));
         EXPECT_TRUE(spinUntil([&] { return app.model.connectFailure().has_value(); }));
         window.type("DeepSeek key", "sk-another");
       }},
      {"connecting",
       [](auto& app, auto&) {
         app.setUp();
         app.launch();
       }},
      {"online",
       [](auto& app, auto&) {
         app.setUp();
         app.goOnline();
       }},
      {"online-setup-open",
       [](auto& app, auto& window) {
         app.setUp();
         app.goOnline();
         window.press("Setup");
         window.type("DeepSeek key", "sk-another");
       }},
      {"online-forget",
       [](auto& app, auto& window) {
         app.setUp();
         app.goOnline();
         window.press("Setup");
         window.press("Forget token");
       }},
      {"online-options",
       [](auto& app, auto& window) {
         app.setUp();
         app.goOnline();
         app.model.settings().setSecretPlace({SecretPlace::Kind::files, ""});
         window.press("Options");
       }},
      {"online-remove",
       [](auto& app, auto& window) {
         app.setUp();
         app.goOnline();
         window.press("Options");
         window.press("Remove everything…");
       }},
      {"removed-not-all",
       [](auto& app, auto&) {
         app.setUp();
         app.traces = {"the browser's task spaces (another driver, process 1234, uses them)"};
         app.model.removeEverything();
         EXPECT_TRUE(spinUntil([&] { return !app.model.isRemoving(); }));
       }},
      {"online-shared-unwritable",
       [](auto& app, auto&) {
         app.setUp();
         app.goOnline();
         app.observer()->driverSharesSpaces("process 1234");
         std::filesystem::remove(app.home / "settings");
         std::filesystem::create_directory(app.home / "settings");
         app.model.settings().setAutoStart(false);
       }},
      {"busy-stopping",
       [](auto& app, auto&) {
         busy(app, {"ada:mail"});
         app.model.stopDriver();
       }},
      {"busy-one", [](auto& app, auto&) { busy(app, {"ada:mail"}); }},
      {"busy-three",
       [](auto& app, auto&) {
         busy(app, {"ada:mail", "ada:crm",
                    "ada:a-lane-with-a-name-that-nobody-would-give-it:but-somebody-did-all-the-"
                    "same"});
         app.observer()->driverJobFinished(1205, "ada:mail", 1,
                                           "the page did not answer within 60 s");
       }},
      {"busy-quit",
       [](auto& app, auto& window) {
         busy(app, {"ada:mail", "ada:crm"});
         window.press("Quit");
       }},
      {"online-retrying",
       [](auto& app, auto&) {
         app.setUp();
         app.goOnline();
         app.observer()->driverRetrying(kLong, 15);
       }},
      {"offline-countdown",
       [](auto& app, auto&) {
         stopped(app, ExitReason::serverUnreachable(kLong));
         app.clock->advance(8s);
       }},
      {"idle", [](auto& app, auto&) { app.setUp(); }},
      {"stopped-bad-config", [](auto& app, auto&) { stopped(app, ExitReason::badConfig("")); }},
      {"stopped-token-revoked",
       [](auto& app, auto&) { stopped(app, ExitReason::tokenRevoked("")); }},
      {"stopped-out-of-date", [](auto& app, auto&) { stopped(app, ExitReason::outOfDate("")); }},
      {"stopped-key-rejected",
       [](auto& app, auto&) { stopped(app, ExitReason::llmKeyRejected("")); }},
      {"stopped-no-executor", [](auto& app, auto&) { stopped(app, ExitReason::noExecutor("")); }},
      {"stopped-done", [](auto& app, auto&) { stopped(app, ExitReason::clean()); }},
      {"keyring-waiting",
       [](auto& app, auto&) {
         app.setUp();
         app.secrets->isLocked = true;
         app.askStore();
         app.model.restartDriver();
         EXPECT_TRUE(spinUntil([&] {
           return std::holds_alternative<DriverWaiting>(app.model.supervisor().state());
         }));
       }},
      {"keyring-prompt",
       [](auto& app, auto&) {
         app.setUp();
         app.secrets->isLocked = true;
         app.secrets->tell(SecretEvent::promptOpened);
         app.askStore();
       }},
      {"migration",
       [](auto& app, auto&) {
         app.askStore();
         legacy(app);
       }},
      {"migration-armed",
       [](auto& app, auto& window) {
         app.setUp();
         legacy(app);
         spin();
         window.press("Import and remove");
         EXPECT_TRUE(
             spinUntil([&] { return app.model.legacyImport().migrationMessage().has_value(); }));
       }},
      {"update",
       [](auto& app, auto&) {
         local::LocalService service;
         service.start();
         service.manifest().patch(
             {{"app_version", "2026.10.01"}, {"dmg_url", "https://verdo.example/driver"}});
         app.setUp(service.url());
         app.model.releases().refresh();
         EXPECT_TRUE(spinUntil([&] { return app.model.releases().updateAvailable(); }));
         app.model.settings().setServerURL(ScriptedModel::kServer);
         app.goOnline();
       }},
      {"check-running",
       [](auto& app, auto&) {
         stopped(app, ExitReason::serverUnreachable(kLong));
         check(app, unreachable(kLong), false);
       }},
      {"check-failed",
       [](auto& app, auto&) {
         stopped(app, ExitReason::serverUnreachable("Connection timed out"));
         auto findings = unreachable("URLError: Failed to connect to verdo.example port 443");
         const auto rest = well();
         findings.insert(findings.end(), rest.begin() + 8, rest.end());
         check(app, findings);
       }},
      {"check-well",
       [](auto& app, auto&) {
         app.setUp();
         app.goOnline();
         check(app, well());
       }},
      {"restart-due",
       [](auto& app, auto&) {
         app.setUp();
         app.goOnline();
         app.isProgramReplaced = true;
         app.model.releases().lookAtProgram();
       }},
      {"restart-busy",
       [](auto& app, auto& window) {
         app.isProgramReplaced = true;
         app.model.releases().lookAtProgram();
         busy(app, {"ada:mail", "ada:crm"});
         window.press("Restart the app");
       }},
      {"right-to-left",
       [](auto& app, auto&) {
         app.setUp();
         app.goOnline("מרים כהן");
         app.observer()->driverBusyLanesChanged({"u:דואר נכנס", "u:مهام طويلة جدا"});
         app.observer()->driverJobFinished(7, "u:דואר נכנס", 1,
                                           "הדף לא ענה בתוך 60 שניות, ולכן העבודה הופסקה");
       }},
      {"markup",
       [](auto& app, auto&) {
         app.setUp();
         app.goOnline("<b>ada</b><img src=x>");
         app.observer()->driverJobFinished(
             7, "<h1>lane</h1>", 1, "<table><tr><td>" + std::string(2000, 'x') + "</td></tr>");
       }},
  };
  return all;
}

QPalette dark() {
  QPalette palette;
  palette.setColor(QPalette::Window, QColor(0x24, 0x24, 0x24));
  palette.setColor(QPalette::Base, QColor(0x1b, 0x1b, 0x1b));
  palette.setColor(QPalette::Button, QColor(0x36, 0x36, 0x36));
  for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
    palette.setColor(role, QColor(0xee, 0xee, 0xee));
    palette.setColor(QPalette::Disabled, role, QColor(0x80, 0x80, 0x80));
  }
  palette.setColor(QPalette::PlaceholderText, QColor(0x9a, 0x9a, 0x9a));
  palette.setColor(QPalette::Highlight, QColor(0x2f, 0x78, 0xd0));
  palette.setColor(QPalette::HighlightedText, Qt::white);
  return palette;
}

QPalette highContrast() {
  QPalette palette(Qt::white, Qt::black, Qt::white, Qt::gray, Qt::gray, Qt::white, Qt::white,
                   Qt::black, Qt::black);
  for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
    palette.setColor(QPalette::Disabled, role, Qt::gray);
  }
  palette.setColor(QPalette::Highlight, Qt::yellow);
  palette.setColor(QPalette::HighlightedText, Qt::black);
  palette.setColor(QPalette::PlaceholderText, Qt::white);
  return palette;
}

/// The room that a widget needs for its text; empty for one whose text may be shortened, since the
/// whole is in its tool tip.
QSize roomFor(QWidget* widget) {
  if (auto* label = qobject_cast<Label*>(widget)) {
    return {0, label->heightForWidth(label->width())};
  }
  if (const auto* field = qobject_cast<QLineEdit*>(widget)) {
    return field->fontMetrics().size(Qt::TextSingleLine, field->placeholderText());
  }
  if (qobject_cast<FoldButton*>(widget)) {
    return widget->fontMetrics().size(Qt::TextSingleLine,
                                      static_cast<QAbstractButton*>(widget)->text());
  }
  const bool hasText = qobject_cast<QLabel*>(widget) || qobject_cast<QAbstractButton*>(widget) ||
                       qobject_cast<QComboBox*>(widget);
  return hasText ? widget->sizeHint() : QSize();
}

/// Nothing that can be seen is wider or higher than its place.
void expectNothingClipped(const PopoverWindow& window) {
  for (auto* widget : window.view->findChildren<QWidget*>()) {
    if (!widget->isVisible() || widget->objectName().startsWith("qt_")) continue;
    const QSize room = roomFor(widget);
    const auto* button = qobject_cast<QAbstractButton*>(widget);
    const auto* label = qobject_cast<QLabel*>(widget);
    const std::string text = (button  ? button->text()
                              : label ? label->text()
                                      : widget->accessibleName())
                                 .toStdString();
    EXPECT_LE(room.width(), widget->width()) << widget->metaObject()->className() << " " << text;
    EXPECT_LE(room.height(), widget->height()) << widget->metaObject()->className() << " " << text;
    const int right = widget->mapTo(&window, QPoint(widget->width(), 0)).x();
    EXPECT_LE(right, window.width()) << widget->metaObject()->className() << " " << text;
  }
}

void draw(const Scene& scene, const QString& path) {
  SCOPED_TRACE(scene.name);
  ScriptedModel app;
  PopoverWindow window(app.model);
  window.show();
  spin();
  scene.play(app, window);
  for (int i = 0; i < 5; ++i) spin();  // what is posted posts more
  // As when the next second comes.
  auto* tick = window.view->findChild<QTimer*>({}, Qt::FindDirectChildrenOnly);
  if (tick->isActive()) {
    QTimerEvent due(tick->timerId());
    QCoreApplication::sendEvent(tick, &due);
  }
  for (int i = 0; i < 3; ++i) spin();
  expectNothingClipped(window);
  if (!path.isEmpty()) window.grab().save(path);
}

int drawAll(const QString& folder, double scale) {
  if (folder.isEmpty()) {
    // The user may have chosen larger letters, too.
    for (const double size : {1.0, 1.4}) {
      const testing::ScopedTrace trace(__FILE__, __LINE__, testing::Message() << "font x " << size);
      QFont font = QApplication::font();
      font.setPointSizeF(font.pointSizeF() * size);
      QApplication::setFont(font);
      for (const auto& scene : scenes()) draw(scene, "");
    }
    return testing::Test::HasFailure() ? 1 : 0;
  }
  QDir().mkpath(folder);
  const std::pair<const char*, QPalette> palettes[] = {
      {"light", QApplication::palette()}, {"dark", dark()}, {"contrast", highContrast()}};
  for (const auto& [name, palette] : palettes) {
    QApplication::setPalette(palette);
    for (const auto& scene : scenes()) {
      draw(scene, QString("%1/%2-%3-%4x.png").arg(folder, scene.name, name).arg(scale));
    }
  }
  return testing::Test::HasFailure() ? 1 : 0;
}

}  // namespace
}  // namespace verdo::test

/// Usage: verdo-app-look [DIRECTORY]    (without one: only looks whether any text is cut off)
int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  const QApplication application(argc, argv);
  const QString folder = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
  return verdo::test::drawAll(folder, application.devicePixelRatio());
}
