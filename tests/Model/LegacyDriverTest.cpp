#include "VerdoDriver/Model/LegacyImport.h"
#include "tests/Support/AppFixture.h"

#include <atomic>

#include <fmt/format.h>

namespace verdo::test {
namespace {

const std::string kPlist = "Library/LaunchAgents/com.verdo.driver.plist";
const std::string kEnvFile = ".config/verdo/driver.env";
const std::string kData = ".local/share/verdo";

/// May be locked, and counts how often its user is asked.
struct AskingStore : MemorySecretStore {
  Result<std::optional<std::string>> read(SecretAccount account) override {
    if (!isLocked) return MemorySecretStore::read(account);
    return tl::make_unexpected(SecretError{SecretError::Kind::locked, 0, "The keyring is locked."});
  }
  Result<void> unlock() override {
    ++unlocks;
    return {};
  }
  std::atomic<bool> isLocked = false;
  std::atomic<int> unlocks = 0;
};

/// A home directory with a terminal driver, and a launchctl that notes how it was called. The agent
/// is loaded while the file "loaded" exists; with a file "hang" launchctl does not end. As the real
/// one may, it fails at "bootout" and does it nevertheless.
class LegacyDriver : public AppFixture {
 protected:
  LegacyDriver() {
    put(kPlist);
    put(kEnvFile,
        "VERDO_SERVER_URL=https://s/\nVERDO_DRIVER_TOKEN=token-1234\n"
        "VERDO_LLM_API_KEY=key-5678\nVERDO_CAFFEINATE=job\n");
    import.detect();
  }
  void put(const std::string& name, const std::string& content = "") const {
    std::filesystem::create_directories(std::filesystem::path(home / name).parent_path());
    home.write(name, content);
  }
  bool has(const std::string& name) const { return std::filesystem::exists(home / name); }
  LegacyDriverMigration migration(std::chrono::milliseconds limit = std::chrono::hours(1)) const {
    const auto script = "#!/bin/sh\ncd " + home.path() +
                        "; echo \"$@\" >>calls; [ -e hang ] && exec sleep 100\n"
                        "[ \"$1\" = bootout ] && rm -f loaded; [ -e loaded ]\n";
    return {home.path(), home.write("launchctl", script, std::filesystem::perms{0700}), 501, limit};
  }
  /// Presses Import and waits until it has ended without a check or is at the check.
  void press(bool remove = false) {
    const auto ended = std::make_shared<bool>(false);  // the completion may come after this
    drafts.clear();
    import.importLegacy(remove, [ended](const auto&) { *ended = true; });
    EXPECT_TRUE(spinUntil([&] { return *ended || !drafts.empty(); }));
  }
  std::string message() const { return import.migrationMessage().value_or(""); }
  bool waitForLog(const std::string& text) const {
    return spinUntil([&] { return appLog.has(text); });
  }

  const std::shared_ptr<AskingStore> secrets = std::make_shared<AskingStore>();
  const StatusText done = StatusText::describe(ExitReason::clean());
  std::string drafts, after;
  ConnectFlow::Completion answer;
  LegacyImport import{{migration(), secrets, &settings, log,
                       [this](const ConnectDraft& draft, ConnectFlow::Completion completion) {
                         drafts += draft.serverURL + " " + draft.token + " " + draft.llmKey + "\n";
                         answer = std::move(completion);
                       },
                       [this] { after += "manifest "; }, [this] { after += "restart "; }}};
};

TEST_F(LegacyDriver, IsMissedOrInventedOrHangsTheApp) {
  for (const auto& [plist, loaded] : {std::pair{true, false}, {false, true}, {false, false}}) {
    if (!plist) std::filesystem::remove(home / kPlist);
    std::filesystem::remove(home / "loaded");
    if (loaded) put("loaded");
    const auto install = migration().detect();
    ASSERT_EQ(install.has_value(), plist || loaded);
    const auto found = fmt::format("found: plist={} loaded={} env=true token=true", plist, loaded);
    EXPECT_TRUE(appLog.has("[Migration] " + (install ? "legacy driver " + found : "no legacy")));
    EXPECT_EQ(install ? *install->tokenLast4 : "····1234", "····1234");
  }
  put(kPlist);
  put("loaded");
  EXPECT_FALSE(LegacyDriverMigration(home.path(), home / "none", 501).detect()->agentLoaded);
  put("hang");
  EXPECT_FALSE(migration(std::chrono::milliseconds(300)).detect()->agentLoaded);
  EXPECT_TRUE(appLog.has("[Migration] launchctl failed to run: no answer within 300 ms"));
}

TEST_F(LegacyDriver, HasItsEnvFileReadDifferently) {
  const std::map<std::string, std::string> expected = {
      {"TWICE", "first"}, {"BOTH", "in"}, {"KEPT", "\"in\""}, {"ONE", "\""}, {"IS", "a=b # c"}};
  EXPECT_EQ(LegacyDriverMigration::parseEnvFile(
                "TWICE=first\nTWICE=second\n  #NO=2\nno equals\n\n BOTH = \"'in'\" \r\n"
                "KEPT='\"in\"'\nONE=\"\nIS=a=b # c"),
            expected);
  put(kEnvFile, "VERDO_DRIVER_TOKEN=\nVERDO_CAFFEINATE=\n");
  EXPECT_FALSE(migration().readSecrets().token);
  EXPECT_EQ(migration().readSecrets().keepAwakeMode, KeepAwakeMode::always);
  for (const auto& rest : {std::string("\xFF"), std::string(2 << 20, 'x')}) {
    put(kEnvFile, "VERDO_DRIVER_TOKEN=t\nOTHER=" + rest);
    EXPECT_FALSE(migration().readSecrets().token);
  }
}

TEST_F(LegacyDriver, IsImportedWithoutALookAtTheStoreOrWithAnOldOne) {
  secrets->isLocked = true;
  press();
  import.importLegacyHeadless();
  EXPECT_TRUE(waitForLog(
      "-VERDOImportLegacy: Import stopped — the stored token cannot be read: The keyring is"));
  EXPECT_TRUE(drafts.empty() && !import.legacyReplaceArmed() && !import.legacyBusy());
  EXPECT_EQ(secrets->unlocks, 1) << "asks somebody although nobody is there";

  secrets->isLocked = false;
  import.importLegacyHeadless();
  EXPECT_TRUE(spinUntil([&] { return !drafts.empty(); }));
  answer({ExitReason::clean(), {}, done, true});
  EXPECT_EQ(log->lines().back(), "headless import: Imported: server, token, key, agent removed.");

  put(kPlist);
  drafts.clear();
  import.importLegacyHeadless();
  std::filesystem::remove(home / kPlist);
  import.detect();  // as opening the popover does
  EXPECT_TRUE(waitForLog("-VERDOImportLegacy: no Terminal driver found"));
  EXPECT_TRUE(drafts.empty() && !import.legacyBusy());
}

TEST_F(LegacyDriver, IsRemovedOrKeptAgainstTheResult) {
  const StatusText unsaved{done.title, "It is full.", {}};  // the words decide nothing
  const std::string imported = "Imported: server, token, key";
  const struct {
    bool remove, stubborn;
    StatusText text;
    std::string message;
  } table[] = {
      {true, false, unsaved, "Import failed — nothing written: " + done.title + ". It is full."},
      {false, false, done, imported + "."},
      {true, true, done,
       imported + ", agent NOT removed: could not delete " + home / kPlist +
           ": Directory not empty."},
      {true, false, done, imported + ", agent removed."},
  };
  for (const auto& [remove, stubborn, text, expected] : table) {
    std::filesystem::remove_all(home / kPlist);
    put(kPlist + (stubborn ? "/stubborn" : ""));
    put(kData + "/driver.py");
    settings.setKeepAwakeMode(KeepAwakeMode::always);
    after.clear();
    press(remove);
    EXPECT_EQ(message(), "Checking the env file's token against https://s…");
    bool refused = false;
    import.importLegacy(true, [&](const auto& given) { refused = !given; });
    import.removeLegacyOnly();
    EXPECT_FALSE(refused) << "within the call";
    EXPECT_TRUE(spinUntil([&] { return refused; }));
    EXPECT_TRUE(import.legacyBusy() && has(kPlist));
    answer({ExitReason::clean(), {}, text, text == done});
    EXPECT_FALSE(import.legacyBusy());
    EXPECT_EQ(message(), expected);
    EXPECT_EQ(after, text == done ? "manifest restart " : "");
    EXPECT_EQ(settings.keepAwakeMode() == KeepAwakeMode::whileJobRuns, text == done);
    EXPECT_EQ(import.legacy().has_value(), !remove || stubborn || text != done);
    EXPECT_EQ(has(kData), import.legacy().has_value());
  }
  EXPECT_EQ(log->lines().back(), "» legacy driver imported (server, token, key, agent removed)");

  put(kPlist);
  import.detect();
  std::filesystem::remove(home / kEnvFile);
  press();
  EXPECT_EQ(message(), "Import refused: Enter the server URL.");
}

}  // namespace
}  // namespace verdo::test
