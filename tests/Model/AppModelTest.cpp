#include "LocalService/LocalService.h"
#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/Model/Headline.h"
#include "VerdoDriver/Model/StatusReport.h"
#include "tests/Support/AppFixture.h"
#include "tests/Support/ScriptedPairing.h"

#include <atomic>

#include <fmt/format.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

/// A keyring that is locked as long as the test wants, and keeps what it is told to.
class LockableStore : public MemorySecretStore {
 public:
  Result<std::optional<std::string>> read(SecretAccount account) override {
    if (isLocked) return tl::make_unexpected(kLocked);
    return MemorySecretStore::read(account);
  }
  Result<void> remove(SecretAccount account) override {
    ++removals;
    if (isLocked) return tl::make_unexpected(kLocked);
    return MemorySecretStore::remove(account);
  }
  Result<void> unlock() override {
    isLocked = false;
    return {};
  }
  void tellChange() { announcer()(SecretEvent::changed); }

  std::atomic<bool> isLocked = false;
  std::atomic<int> removals = 0;

 private:
  const SecretError kLocked{SecretError::Kind::locked, 0, "The keyring is locked."};
};

class ScriptedPath : public PathMonitor {
 public:
  void start() override {}
  void report(bool satisfied) { Q_EMIT reported(satisfied); }
};

class ScriptedWake : public WakeMonitor {
 public:
  void wakeUp() { Q_EMIT woke(); }
};

class ScriptedLogin : public NoopLoginItemManager {
 public:
  bool isEnabled() const override { return enabled; }
  void setEnabled(bool wanted) override { enabled = isStuck ? enabled : wanted; }
  bool enabled = false;
  bool isStuck = false;
};

class CountingAssertion : public PowerAssertion {
 public:
  void hold(const std::string&) override { held = true; }
  void release() override { held = false; }
  bool isHeld() const override { return held; }
  bool held = false;
};

class AppModelTest : public AppFixture {
 protected:
  AppModelTest() { settings.setServerURL("http://127.0.0.1:9"); }

  void store(const std::string& token, const std::string& key = "") {
    EXPECT_TRUE(secrets->write(token, SecretAccount::driverToken));
    EXPECT_TRUE(secrets->write(key, SecretAccount::llmKey));
  }
  /// Makes the model, from the same settings, and launches it.
  void launch() {
    launchedAs.reset();
    path = new ScriptedPath;
    wake = new ScriptedWake;
    AppModel::Parts parts{
        .system = {.clock = clock,
                   .secrets = secrets,
                   .powerAssertion = assertion,
                   .loginItems = loginItem,
                   .wakeMonitor = std::unique_ptr<WakeMonitor>(wake),
                   .pathMonitor = std::unique_ptr<PathMonitor>(path),
                   .browserPackage = {},
                   .isProgramReplaced = [this] { return isProgramReplaced; }},
        .settings = std::make_unique<SettingsStore>(std::make_unique<QSettings>(
            QString::fromStdString(home / "settings"), QSettings::IniFormat)),
        .factory = factory,
        .log = log,
        .migration = LegacyDriverMigration(home.path(), home / "launchctl", 1),
        .updateChecker = std::make_unique<UpdateChecker>("1.0.0"),
        .pairingService = std::make_shared<ScriptedPairing>(),
        .egoPath = [] { return "/bin/ego"; },
        .hostName = [] { return "box"; },
        .openURL = [this](const auto& url) { opened.push_back(url); },
        .removeTraces = [this] { return traces; },
        .logPath = "/a #1/log",
        .llmBase = {},
        .clientHeader = "app/1.0.0",
    };
    model = std::make_unique<AppModel>(std::move(parts));
    model->didLaunch([this](bool isNotSetUp) { launchedAs = isNotSetUp; });
  }
  bool waitForRun(std::size_t count) {
    return spinUntil([&] { return factory->runs.size() == count; });
  }
  /// Connects the run in hand.
  void connectRun() {
    factory->runs.back()->observer.lock()->driverConnected("ada", 1, "1");
    ASSERT_TRUE(spinUntil([&] { return model->connection() == Connection::online; }));
  }

  const std::shared_ptr<LockableStore> secrets = std::make_shared<LockableStore>();
  const std::shared_ptr<CountingAssertion> assertion = std::make_shared<CountingAssertion>();
  const std::shared_ptr<ScriptedLogin> loginItem = std::make_shared<ScriptedLogin>();
  Removal::Left traces;
  bool isProgramReplaced = false;
  ScriptedPath* path = nullptr;
  ScriptedWake* wake = nullptr;
  std::vector<std::string> opened;
  std::unique_ptr<AppModel> model;
  std::optional<bool> launchedAs;
};

TEST_F(AppModelTest, StartsWhatItShouldNotAtLaunch) {
  const struct {
    const char* server;
    const char* token;
    bool autoStart;
    bool isNotSetUp;
    std::size_t runs;
    bool asksForManifest;
  } table[] = {
      {"", "token-1234", true, true, 0, false},
      {"http://127.0.0.1:9", "", true, true, 0, false},
      {"http://127.0.0.1:9", "token-1234", false, false, 0, true},
      {"http://127.0.0.1:9", "token-1234", true, false, 1, true},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(testing::Message() << row.server << row.token << row.autoStart);
    const AppLogCapture lines;
    settings.setServerURL(row.server);
    settings.setAutoStart(row.autoStart);
    EXPECT_TRUE(secrets->remove(SecretAccount::driverToken));
    store(row.token);
    launch();
    ASSERT_TRUE(spinUntil([&] { return launchedAs.has_value(); }));
    EXPECT_EQ(*launchedAs, row.isNotSetUp);
    EXPECT_TRUE(waitForRun(row.runs));
    EXPECT_EQ(lines.has("[UpdateChecker] GET"), row.asksForManifest);
  }
  const auto& config = factory->runs.back()->config;
  EXPECT_EQ(config.token, "token-1234");
  EXPECT_EQ(config.maxJobsCeiling, 4);
  EXPECT_EQ(config.clientHeader, "app/1.0.0");
}

TEST_F(AppModelTest, AsksToPairAgainWhileTheKeyringIsLocked) {
  store("token-1234");
  launch();
  ASSERT_TRUE(waitForRun(1));  // the settings remember that there is a token
  model.reset();
  secrets->isLocked = true;
  launch();
  ASSERT_TRUE(spinUntil([&] { return model->connection() == Connection::offline; }));
  ASSERT_TRUE(spinUntil([&] { return headlineOf(*model).action == Headline::Action::unlock; }));
  EXPECT_NE(launchedAs, true);
  EXPECT_EQ(headlineOf(*model).title, "Waiting for the keyring");
  model->settings().setSecretPlace({.kind = SecretPlace::Kind::files, .provider = {}});
  EXPECT_EQ(headlineOf(*model).title, "The token cannot be read") << "there is no keyring";
  EXPECT_FALSE(assertion->held) << "there is no run to stay awake for";
  EXPECT_THAT(statusReport(*model, false), HasSubstr(R"("locked": true)"));
  model->unlockSecrets();
  ASSERT_TRUE(waitForRun(2));
  EXPECT_TRUE(assertion->held);
}

TEST_F(AppModelTest, OpensTheSetupForAKeyringThatSaysNothing) {
  secrets->isLocked = true;  // and nothing is remembered
  launch();
  ASSERT_TRUE(
      spinUntil([&] { return model->storedSecrets().token().state == SecretState::locked; }));
  EXPECT_EQ(launchedAs, std::nullopt);
  secrets->isLocked = false;
  secrets->tellChange();
  ASSERT_TRUE(spinUntil([&] { return launchedAs == true; }));
}

TEST_F(AppModelTest, KicksForNothing) {
  store("token-1234");
  launch();
  ASSERT_TRUE(waitForRun(1));
  path->report(true);  // the first report is news of nothing
  EXPECT_FALSE(appLog.has("network back"));
  EXPECT_EQ(factory->runs.back()->networkChanges, 0);
  path->report(false);
  path->report(true);
  EXPECT_TRUE(appLog.has("[AppModel] network back — kick"));
  path->report(true);  // another path
  EXPECT_EQ(factory->runs.back()->networkChanges, 2);
}

TEST_F(AppModelTest, WaitsOnAlthoughTheComputerWokeUpOrTheNetworkIsBack) {
  store("token-1234");
  launch();
  ASSERT_TRUE(waitForRun(1));
  const auto lose = [&] {
    factory->runs.back()->end(ExitReason::serverUnreachable("gone"));
    EXPECT_TRUE(spinUntil([&] { return model->connection() == Connection::offline; }));
  };
  lose();
  wake->wakeUp();
  EXPECT_TRUE(appLog.has("[AppModel] system woke — kick"));
  ASSERT_TRUE(waitForRun(2));
  path->report(false);
  lose();
  path->report(true);
  ASSERT_TRUE(waitForRun(3));
}

TEST_F(AppModelTest, OffersAnAddressThatItMustNotOpenOrRefusesItTimeAndAgain) {
  local::LocalService service;
  service.start();
  service.manifest().patch({{"dmg_url", "http://elsewhere.example/app"},
                            {"ego_install_url", "https://ego.example/install"}});
  settings.setServerURL(service.url());
  settings.setAutoStart(false);
  store("token-1234");
  launch();
  ASSERT_TRUE(spinUntil([&] { return model->releases().manifest().has_value(); }));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(model->releases().downloadURL(), std::nullopt);
  model->releases().openDownload();
  model->releases().openEgoInstall();
  EXPECT_EQ(opened, std::vector<std::string>{"https://ego.example/install"});
  model->openLog();
  EXPECT_EQ(opened.back(), "file:///a%20%231/log") << "opens another place";
  const auto lines = appLog.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), holding("dmg_url refused")), 1);
}

TEST_F(AppModelTest, SeesNoUpgradeOfItsProgramOrOneThatIsGone) {
  settings.setAutoStart(false);
  store("token-1234");
  launch();
  ASSERT_TRUE(spinUntil([&] { return launchedAs.has_value(); }));
  const auto tells = [&](bool isDue) {
    return testing::Matches(HasSubstr(fmt::format(R"("restartDue": {})", isDue)))(
        statusReport(*model, false));
  };
  EXPECT_TRUE(tells(false));
  isProgramReplaced = true;
  bool told = false;
  QObject::connect(model.get(), &AppModel::changed, model.get(), [&] { told = true; });
  clock->advance(Releases::kManifestDay);
  EXPECT_TRUE(tells(true));
  EXPECT_TRUE(spinUntil([&] { return told; }));
  isProgramReplaced = false;
  model->popoverOpened();  // the manifest was asked for just now
  EXPECT_TRUE(tells(false));
}

TEST_F(AppModelTest, RunsOnWithWhatTheUserTookAway) {
  store("token-1234", "key-5678");
  launch();
  ASSERT_TRUE(waitForRun(1));
  connectRun();
  model->removeKey();
  ASSERT_TRUE(spinUntil([&] { return factory->runs.back()->stops == 1; }));
  factory->runs.back()->end(ExitReason::stopped());
  ASSERT_TRUE(waitForRun(2));
  EXPECT_EQ(factory->runs.back()->config.llmKey, "");
  EXPECT_TRUE(log->has("» DeepSeek key removed"));
  model->forgetToken();
  EXPECT_EQ(factory->runs.back()->stops, 1);
  EXPECT_EQ(headlineOf(*model).title, "Stopping…");
  clock->advance(75s);
  EXPECT_TRUE(log->has("» driver did not stop in 75s"));
  ASSERT_TRUE(spinUntil([&] { return model->connection() == Connection::notSetUp; }));
  EXPECT_TRUE(log->has("» token forgotten"));
  EXPECT_EQ(factory->runs.size(), 2u);
}

TEST_F(AppModelTest, SaysForgottenOfATokenThatIsThereOrThereOfOneThatIsGone) {
  store("token-1234");
  launch();
  ASSERT_TRUE(waitForRun(1));
  secrets->isLocked = true;
  model->forgetToken();
  ASSERT_TRUE(spinUntil([&] { return model->secretFailure().has_value(); }));
  EXPECT_EQ(model->secretFailure(), "The token could not be forgotten: The keyring is locked.");
  EXPECT_FALSE(log->has("» token forgotten"));
  EXPECT_TRUE(model->hasToken());
  // Once someone has done it by hand it is not true any more.
  secrets->isLocked = false;
  secrets->tellChange();
  ASSERT_TRUE(spinUntil([&] { return model->storedSecrets().isKnown(); }));
  EXPECT_TRUE(model->secretFailure());
  EXPECT_TRUE(secrets->remove(SecretAccount::driverToken));
  secrets->tellChange();
  EXPECT_TRUE(spinUntil([&] { return !model->secretFailure(); }));
}

TEST_F(AppModelTest, RemovesHalfOrHidesThatSomethingStays) {
  EXPECT_TRUE(settings.forgetAll());
  launch();
  ASSERT_TRUE(spinUntil([&] { return launchedAs.has_value(); }));
  const auto atFirst = statusReport(*model, false);
  store("token-1234", "key-5678");
  model->settings().setServerURL("http://127.0.0.1:9");
  model->setLaunchAtLogin(true);
  model->settings().setAutoStart(false);
  secrets->tellChange();
  ASSERT_TRUE(spinUntil([&] { return model->hasKey(); }));
  model->restartDriver();
  ASSERT_TRUE(waitForRun(1));
  connectRun();
  factory->runs.back()->observer.lock()->driverJobFinished(1, "mail", 1, "lost");
  const auto remove = [&] {
    model->removeEverything();
    EXPECT_TRUE(model->isRemoving());
    for (const auto& run : factory->runs) run->end(ExitReason::stopped());
    EXPECT_TRUE(spinUntil([&] { return !model->isRemoving(); }));
    return model->removalReport().value_or("");
  };

  secrets->isLocked = loginItem->isStuck = true;
  traces = {"the browser's profiles (busy)"};
  EXPECT_EQ(remove(),
            "Not removed: the token (The keyring is locked.); the key (The keyring is locked.); "
            "the browser's profiles (busy); the start at login. Everything else was. The log is "
            "still there: /a #1/log");
  EXPECT_EQ(secrets->removals, 1) << "asks a user again who did not allow it";
  EXPECT_EQ(factory->runs.back()->stops, 1);
  EXPECT_FALSE(std::filesystem::exists(home / "settings"));
  EXPECT_TRUE(log->has("✗ not removed: the token"));

  secrets->isLocked = loginItem->isStuck = false;
  traces.clear();
  EXPECT_EQ(remove(), "Everything was removed. The log is still there: /a #1/log");
  EXPECT_FALSE(loginItem->enabled);
  for (const auto account : kSecretAccounts) EXPECT_EQ(secrets->read(account), std::nullopt);
  EXPECT_TRUE(spinUntil([&] { return statusReport(*model, false) == atFirst; }))
      << statusReport(*model, false);
  EXPECT_TRUE(model->settings().autoStart());
  EXPECT_FALSE(std::filesystem::exists(home / "settings"));
  EXPECT_EQ(factory->runs.size(), 1u);
}

TEST_F(AppModelTest, StatusTellsASecret) {
  store("token-1234", "key-5678");
  launch();
  ASSERT_TRUE(waitForRun(1));
  connectRun();
  const auto report = statusReport(*model, true);
  EXPECT_THAT(report, Not(HasSubstr("token-1234")));
  EXPECT_THAT(report, HasSubstr(R"("connection": "online", "word": "online", )"
                                R"("tooltip": "Verdo Driver \u2014 online", "icon": "online")"));
  EXPECT_THAT(report, HasSubstr(R"("tokenLast4": "\u00b7\u00b7\u00b7\u00b71234")"));
}

}  // namespace
}  // namespace verdo::test
