#include "VerdoDriver/Model/LegacyImport.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/RecordingDriverLog.h"
#include "tests/Support/TempDir.h"

#include <QSettings>
#include <atomic>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace verdo::test {
namespace {

const std::string kPlist = "Library/LaunchAgents/com.verdo.driver.plist";
const std::string kEnvFile = ".config/verdo/driver.env";
const std::string kData = ".local/share/verdo";

/// A home directory with what a test installs of a terminal driver, and a launchctl that notes how
/// it was called. The agent is loaded while the file "loaded" exists; with a file "hang" launchctl
/// does not end. As the real one may, it fails at "bootout" and does it nevertheless.
struct LegacyHome : TempDir {
  void put(const std::string& name, const std::string& content = "") const {
    std::filesystem::create_directories(std::filesystem::path(*this / name).parent_path());
    write(name, content);
  }
  bool has(const std::string& name) const { return std::filesystem::exists(*this / name); }
  LegacyDriverMigration migration(std::chrono::milliseconds limit = std::chrono::hours(1)) const {
    const auto script = "#!/bin/sh\ncd " + path() +
                        "; echo \"$@\" >>calls; [ -e hang ] && exec sleep 100\n"
                        "[ \"$1\" = bootout ] && rm -f loaded; [ -e loaded ]\n";
    return {path(), write("launchctl", script, std::filesystem::perms{0700}), 501, limit};
  }
};

TEST(LegacyDriver, IsSeenInOtherTraces) {
  for (const auto& [plist, loaded] : {std::pair{false, false}, {true, false}, {false, true}}) {
    const LegacyHome home;
    const AppLogCapture log;
    home.put(kEnvFile, "VERDO_SERVER_URL=s\nVERDO_DRIVER_TOKEN=token-1234\nVERDO_LLM_API_KEY=\n");
    if (plist) home.put(kPlist);
    if (loaded) home.put("loaded");
    const auto install = home.migration().detect();
    const auto line = !install ? "no legacy driver"
                               : fmt::format(
                                     "legacy driver found: plist={} loaded={} env=true "
                                     "token=true key=false",
                                     plist, loaded);
    EXPECT_EQ(log.lines(), std::vector{"verdo.migration [Migration] " + line});
    EXPECT_EQ(install.has_value(), plist || loaded);
    EXPECT_EQ(install ? *install->server + *install->tokenLast4 : "s····1234", "s····1234");
  }
}

TEST(LegacyDriver, HasItsEnvFileReadDifferently) {
  const std::map<std::string, std::string> expected = {
      {"TWICE", "first"}, {"BOTH", "in"}, {"KEPT", "\"in\""}, {"ONE", "\""}, {"IS", "a=b # c"}};
  EXPECT_EQ(LegacyDriverMigration::parseEnvFile(
                "TWICE=first\nTWICE=second\n  #NO=2\nno equals\n\n BOTH = \"'in'\" \r\n"
                "KEPT='\"in\"'\nONE=\"\nIS=a=b # c"),
            expected);
  const LegacyHome home;
  home.put(kEnvFile, "VERDO_DRIVER_TOKEN=\nVERDO_CAFFEINATE=\n");
  EXPECT_FALSE(home.migration().readSecrets().token);
  EXPECT_EQ(home.migration().readSecrets().keepAwakeMode, KeepAwakeMode::always);
  home.put(kEnvFile, "VERDO_DRIVER_TOKEN=t\nOTHER=\xFF");
  EXPECT_FALSE(home.migration().readSecrets().token);
}

TEST(LegacyDriver, HangsOrFailsTheAppWithItsLaunchctl) {
  const LegacyHome home;
  const AppLogCapture log;
  home.put(kPlist);
  EXPECT_FALSE(LegacyDriverMigration(home.path(), home / "none", 501).detect()->agentLoaded);
  EXPECT_EQ(log.lines().size(), 1u);
  home.put("loaded");
  home.put("hang");
  EXPECT_FALSE(home.migration(std::chrono::milliseconds(300)).detect()->agentLoaded);
  EXPECT_TRUE(log.has("[Migration] launchctl failed to run: no answer within 300 ms"));
}

/// A keyring that its user has not unlocked.
struct LockedStore : MemorySecretStore {
  Result<std::optional<std::string>> read(SecretAccount) override {
    return tl::make_unexpected(SecretError{SecretError::Kind::locked, 0, "The keyring is locked."});
  }
};

class LegacyImportTest : public testing::Test {
 protected:
  LegacyImportTest() {
    home.put(kPlist);
    home.put(kEnvFile,
             "VERDO_SERVER_URL=https://s/\nVERDO_DRIVER_TOKEN=token-1234\n"
             "VERDO_LLM_API_KEY=key-5678\nVERDO_CAFFEINATE=job\n");
  }
  void make(std::shared_ptr<SecretStore> store) {
    import.emplace(LegacyImport::Parts{
        home.migration(), std::move(store), &settings, log,
        [this](const ConnectDraft& draft, ConnectFlow::Completion completion) {
          drafts += draft.serverURL + " " + draft.token + " " + draft.llmKey + "\n";
          answer = std::move(completion);
        },
        [this] { after += "manifest "; }, [this] { after += "restart "; }});
    import->detect();
  }
  /// Presses Import and waits until it has ended without a check or is at the check.
  void press(bool remove = false) {
    const auto ended = std::make_shared<bool>(false);  // the completion may come after this
    drafts.clear();
    import->importLegacy(remove, [ended](const auto&) { *ended = true; });
    EXPECT_TRUE(spinUntil([&] { return *ended || !drafts.empty(); }));
  }
  std::string message() const { return import->migrationMessage().value_or(""); }

  const LegacyHome home;
  const AppLogCapture appLog;
  SettingsStore settings{
      std::make_unique<QSettings>(QString::fromStdString(home / "s.ini"), QSettings::IniFormat)};
  const std::shared_ptr<MemorySecretStore> secrets = std::make_shared<MemorySecretStore>();
  const std::shared_ptr<RecordingDriverLog> log = std::make_shared<RecordingDriverLog>();
  const StatusText done = StatusText::describe(ExitReason::clean());
  std::string drafts, after;
  ConnectFlow::Completion answer;
  std::optional<LegacyImport> import;
};

TEST_F(LegacyImportTest, ReplacesATokenUnasked) {
  (void)secrets->write("stored-9999", SecretAccount::driverToken);
  make(secrets);
  press();
  EXPECT_TRUE(drafts.empty() && import->legacyReplaceArmed());
  EXPECT_EQ(message(),
            "A token ····9999 is already stored — press Import again to replace it with the env "
            "file's ····1234.");
  import->importLegacyHeadless();  // must not take the user's press for its own
  EXPECT_TRUE(spinUntil([&] { return appLog.has("a token is already stored — use the banner"); }));
  press();
  press();
  EXPECT_EQ(drafts, "https://s token-1234 key-5678\n");
  (void)secrets->remove(SecretAccount::driverToken);
  make(secrets);
  import->importLegacyHeadless();
  EXPECT_TRUE(spinUntil([&] { return import->migrationMessage().has_value(); }));
  EXPECT_TRUE(appLog.has("-VERDOImportLegacy: importing (token true, key true)"));
  answer({ExitReason::clean(), {}, done, true});
  EXPECT_EQ(log->lines().back(), "headless import: Imported: server, token, key, agent removed.");
}

TEST_F(LegacyImportTest, MistakesALockedKeyringForAnEmptyOne) {
  make(std::make_shared<LockedStore>());
  press();
  import->importLegacyHeadless();
  const std::string expected =
      "Import stopped — the stored token cannot be read: The keyring is locked.";
  EXPECT_TRUE(spinUntil([&] { return log->has("headless import: " + expected); }));
  EXPECT_TRUE(drafts.empty() && !import->legacyReplaceArmed() && !import->legacyBusy());
}

TEST_F(LegacyImportTest, TrustsAnOldDetectionWhileTheStoreAnswers) {
  make(secrets);
  import->importLegacyHeadless();
  std::filesystem::remove(home / kPlist);
  import->detect();  // as opening the popover does
  EXPECT_TRUE(
      spinUntil([&] { return appLog.has("-VERDOImportLegacy: no Terminal driver found"); }));
  EXPECT_TRUE(drafts.empty() && !import->legacyBusy());
}

TEST_F(LegacyImportTest, PromptsWithoutAUser) {
  struct CountingStore : MemorySecretStore {
    Result<void> unlock() override {
      ++unlocks;
      return {};
    }
    std::atomic<int> unlocks = 0;
  };
  const auto store = std::make_shared<CountingStore>();
  (void)store->write("stored-9999", SecretAccount::driverToken);
  make(store);
  import->importLegacyHeadless();
  EXPECT_TRUE(spinUntil([&] { return appLog.has("a token is already stored — use the banner"); }));
  EXPECT_EQ(store->unlocks, 0);
  press();
  EXPECT_EQ(store->unlocks, 1);
}

TEST_F(LegacyImportTest, TellsOrDoesSomethingElseAfterTheCheck) {
  const auto gone = StatusText::describe(ExitReason::serverUnreachable("gone"));
  const StatusText unsaved{done.title, "It is full.", {}};  // the words decide nothing
  const std::string failed = "Import failed — nothing written: ";
  const std::string imported = "Imported: server, token, key";
  const struct {
    bool remove, stubborn;
    StatusText text;
    std::string message;
  } table[] = {
      {true, false, gone, failed + "Server unreachable. gone — retrying"},
      {true, false, unsaved, failed + done.title + ". It is full."},
      {false, false, done, imported + "."},
      {true, true, done,
       imported + ", agent NOT removed: could not delete " + home / kPlist +
           ": Directory not empty."},
      {true, false, done, imported + ", agent removed."},
  };
  for (const auto& [remove, stubborn, text, expected] : table) {
    std::filesystem::remove_all(home / kPlist);
    home.put(kPlist + (stubborn ? "/stubborn" : ""));
    home.put(kData + "/driver.py");
    settings.setKeepAwakeMode(KeepAwakeMode::always);
    after.clear();
    make(secrets);
    press(remove);
    EXPECT_EQ(message(), "Checking the env file's token against https://s…");
    bool refused = false;
    import->importLegacy(true, [&](const auto& given) { refused = !given; });
    import->removeLegacyOnly();
    EXPECT_FALSE(refused) << "within the call";
    EXPECT_TRUE(spinUntil([&] { return refused; }));
    EXPECT_TRUE(refused && import->legacyBusy() && home.has(kPlist));
    answer({text == gone ? ExitReason::serverUnreachable("gone") : ExitReason::clean(),
            {},
            text,
            text == done});
    EXPECT_FALSE(import->legacyBusy());
    EXPECT_EQ(message(), expected);
    EXPECT_EQ(after, text == done ? "manifest restart " : "");
    EXPECT_EQ(settings.keepAwakeMode() == KeepAwakeMode::whileJobRuns, text == done);
    EXPECT_EQ(import->legacy().has_value(), !remove || stubborn || text != done);
    EXPECT_EQ(home.has(kData), import->legacy().has_value());
  }
  EXPECT_TRUE(home.has(kEnvFile));
  EXPECT_THAT(contentOf(home / "calls"),
              testing::HasSubstr("bootout gui/501/com.verdo.driver\nprint gui/501/com.verdo"));
  EXPECT_EQ(log->lines().back(), "» legacy driver imported (server, token, key, agent removed)");
  EXPECT_TRUE(appLog.has("[AppModel] import dry run failed: exit 1"));
  EXPECT_TRUE(appLog.has("[Migration] launchctl bootout → 1"));
}

TEST_F(LegacyImportTest, RefusesOrRemovesInOtherWords) {
  make(secrets);
  import->deleteLegacyEnvFile();
  EXPECT_EQ(message(), "Env file deleted.");
  press();
  EXPECT_EQ(message(), "Import refused: Enter the server URL.");
  import->removeLegacyOnly();
  EXPECT_EQ(message(), "Terminal driver removed; " + home / kEnvFile + " kept.");
  EXPECT_FALSE(home.has(kEnvFile) || import->legacy());
}

}  // namespace
}  // namespace verdo::test
