#include "VerdoDriver/Model/ConnectFlow.h"
#include "VerdoDriver/Model/EgoLocator.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/RecordingDriverLog.h"
#include "tests/Support/ScriptedDriver.h"
#include "tests/Support/TempDir.h"

#include <QSettings>

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Fails every write to one account.
class FailingStore : public MemorySecretStore {
 public:
  Result<void> write(const std::string& value, SecretAccount account) override {
    if (account != failing) return MemorySecretStore::write(value, account);
    return tl::make_unexpected(SecretError{SecretError::Kind::locked, 1, "The keyring is locked."});
  }
  std::optional<SecretAccount> failing;
};

class Connect : public testing::Test {
 protected:
  Connect() {
    EXPECT_TRUE(secrets->write("old-token", SecretAccount::driverToken));
    EXPECT_TRUE(secrets->write("old-key", SecretAccount::llmKey));
    factory->endsAtOnce = ExitReason::clean();
  }
  ConnectResult connect() {
    std::optional<ConnectResult> result;
    flow.connect(draft, [&](const ConnectResult& given) {
      EXPECT_FALSE(result) << "completed twice";
      result = given;
    });
    EXPECT_TRUE(spinUntil([&] { return result.has_value(); }));
    return result.value();
  }
  static std::string textOf(const ConnectResult& result) {
    const auto& [title, detail, action] = result.text;
    return title + "|" + detail + "|" + std::to_string(static_cast<int>(action));
  }
  std::string stored(SecretAccount account) { return secrets->read(account)->value_or(""); }
  std::vector<std::string> saved() {
    return {stored(SecretAccount::driverToken), stored(SecretAccount::llmKey),
            settings.serverURL()};
  }

  TempDir directory;
  std::shared_ptr<ScriptedFactory> factory = std::make_shared<ScriptedFactory>();
  std::shared_ptr<FailingStore> secrets = std::make_shared<FailingStore>();
  SettingsStore settings{std::make_unique<QSettings>(QString::fromStdString(directory / "settings"),
                                                     QSettings::IniFormat)};
  std::shared_ptr<RecordingDriverLog> log = std::make_shared<RecordingDriverLog>();
  std::optional<std::string> ego = "/bin/ego";
  AppLogCapture appLog;
  ConnectFlow flow{factory, secrets, settings, log, [this] { return ego; }};
  ConnectDraft draft{"https://s.example/", "new-token", "new-key", false};
};

TEST_F(Connect, SavesWhatWasRefusedOrFailed) {
  const auto token = SecretAccount::driverToken;
  const auto ends = [this](const ExitReason& reason) { factory->endsAtOnce = reason; };
  const struct {
    std::function<void()> prepare;
    int exitCode;
    std::string text;  ///< as textOf gives it
  } table[] = {
      {[=, this] { draft.serverURL = ""; }, 2, "Check the setup|Enter the server URL.|5"},
      {[=, this] { draft.token = ""; }, 2,
       "Check the setup|Not connected yet — press Connect to website.|5"},
      {[=, this] { ego.reset(); }, 127,
       "ego lite not found|Install ego lite and log in to LinkedIn there once.|1"},
      {[=] { ends(ExitReason::serverUnreachable("m")); }, 1, "Server unreachable|m — retrying|5"},
      {[=] { ends(ExitReason::tokenRevoked("m")); }, 3,
       "Disconnected|The website no longer accepts this Mac — press Connect to website in Setup "
       "to pair again.|3"},
      {[=] { ends(ExitReason::outOfDate("")); }, 6,
       "App out of date|The server speaks a newer driver protocol — download the new Verdo "
       "Driver.|2"},
      {[=] { ends(ExitReason::llmKeyRejected("m")); }, 7,
       "DeepSeek rejected the key ····-key|Nothing saved — check the key and try again.|4"},
      {[=] { ends(ExitReason::stopped()); }, 130, "Stopped|The driver is not running.|0"},
      {[=, this] { secrets->failing = token; }, 0,
       "Could not save to the Keychain|The keyring is locked.|0"},
      {[=, this] { secrets->failing = SecretAccount::llmKey; }, 0,
       "Could not save to the Keychain|The keyring is locked.|0"},
  };
  const auto original = draft;
  for (const auto& row : table) {
    draft = original;
    ego = "/bin/ego";
    factory->endsAtOnce = ExitReason::clean();
    secrets->failing.reset();
    row.prepare();
    const auto result = connect();
    EXPECT_EQ(result.reason.code(), row.exitCode) << row.text;
    EXPECT_EQ(textOf(result), row.text);
    EXPECT_THAT(saved(), ElementsAre("old-token", "old-key", ""));
  }
  EXPECT_TRUE(appLog.has("[ConnectFlow] refused before running: Enter the server URL."));
  EXPECT_TRUE(appLog.has("[ConnectFlow] dry run → exit 3"));
  EXPECT_TRUE(appLog.has("[ConnectFlow] keychain write failed: The keyring is locked."));
}

TEST_F(Connect, LosesWhatWasProven) {
  draft.allowInsecure = true;
  factory->endsAtOnce.reset();
  std::optional<ConnectResult> result;
  flow.connect(draft, [&](const ConnectResult& given) { result = given; });
  ASSERT_EQ(factory->runs.size(), 1u);
  const auto& run = *factory->runs[0];
  EXPECT_TRUE(run.config.dryRun && run.config.checkLLM && run.config.insecure);
  EXPECT_EQ(run.config.server, "https://s.example");
  EXPECT_EQ(run.config.execCommand, EgoLocator::command());
  run.observer.lock()->driverConnected("ann", 1, "1");
  factory->runs[0]->end(ExitReason::clean());
  ASSERT_TRUE(spinUntil([&] { return result.has_value(); }));
  EXPECT_EQ(result->username, "ann");
  EXPECT_THAT(saved(), ElementsAre("new-token", "new-key", "https://s.example"));
  EXPECT_TRUE(settings.allowInsecure());
  EXPECT_THAT(log->lines(),
              ElementsAre("» dry run (check_llm=true) against https://s.example, token ····oken",
                          "» connected as ann — settings saved"));
  for (const auto& line : appLog.lines()) {
    EXPECT_THAT(line, Not(testing::ContainsRegex("new-token|new-key"))) << line;
  }
}

TEST_F(Connect, ErasesTheStoredKeyWithAnEmptyOne) {
  draft.llmKey = "";
  EXPECT_EQ(connect().reason, ExitReason::clean());
  EXPECT_EQ(factory->runs.at(0)->config.llmKey, "old-key");
  EXPECT_THAT(saved(), ElementsAre("new-token", "old-key", "https://s.example"));

  EXPECT_TRUE(secrets->remove(SecretAccount::llmKey));
  EXPECT_EQ(textOf(connect()), "Check the setup|Paste the DeepSeek key first.|5");
}

}  // namespace
}  // namespace verdo::test
