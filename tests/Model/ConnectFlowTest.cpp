#include "VerdoDriver/Model/ConnectFlow.h"
#include "VerdoDriver/Model/EgoLocator.h"
#include "VerdoDriver/Model/SecretTask.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/RecordingDriverLog.h"
#include "tests/Support/ScriptedDriver.h"
#include "tests/Support/TempDir.h"

#include <QSettings>
#include <atomic>

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

/// Fails every write to one account, and holds calls up as long as the test wants.
class FailingStore : public MemorySecretStore {
 public:
  Result<std::optional<std::string>> read(SecretAccount account) override {
    ++reads;
    reach(Call::read);
    return MemorySecretStore::read(account);
  }
  Result<void> write(const std::string& value, SecretAccount account) override {
    ++writes;
    reach(account == SecretAccount::driverToken ? Call::writeToken : Call::writeKey);
    if (account != failing) return MemorySecretStore::write(value, account);
    return tl::make_unexpected(SecretError{SecretError::Kind::locked, 1, "The keyring is locked."});
  }
  Result<void> unlock() override {
    ++unlocks;
    if (!isRefused) return {};
    return tl::make_unexpected(SecretError{SecretError::Kind::locked, 1, "Not unlocked."});
  }
  void cancelPrompt() override { ++cancelledPrompts; }

  enum class Call { none, read, writeToken, writeKey };
  std::optional<SecretAccount> failing;
  bool isRefused = false;
  std::atomic<int> reads = 0, writes = 0, unlocks = 0, cancelledPrompts = 0;
  std::atomic<Call> heldUp = Call::none;
  Event reached, goOn;

 private:
  void reach(Call call) {
    if (heldUp != call) return;
    heldUp = Call::none;
    reached.set();
    goOn.wait();
  }
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
    EXPECT_FALSE(result) << "completed within the call";
    EXPECT_TRUE(spinUntil([&] { return result.has_value(); }));
    return result.value();
  }
  static std::string textOf(const ConnectResult& result) {
    const auto& [title, detail, action] = result.text;
    return title + "|" + detail + "|" + std::to_string(static_cast<int>(action));
  }
  /// Until all work at the store that was asked for so far is done, without letting events run.
  static void waitForTheStore() {
    Event done;
    secretQueue().post([&] { done.set(); });
    done.wait();
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
    EXPECT_FALSE(result.saved);
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
  EXPECT_TRUE(result->saved);
  EXPECT_THAT(saved(), ElementsAre("new-token", "new-key", "https://s.example"));
  EXPECT_TRUE(settings.allowInsecure());
  EXPECT_THAT(log->lines(),
              ElementsAre("» dry run (check_llm=true) against https://s.example, token ····oken",
                          "» connected as ann — settings saved"));
  for (const auto& line : appLog.lines()) {
    EXPECT_THAT(line, Not(testing::ContainsRegex("new-token|new-key"))) << line;
  }
}

TEST_F(Connect, SavesOneDraftsUrlWithTheOthersToken) {
  factory->endsAtOnce.reset();
  std::vector<std::string> ends;
  const auto note = [&](const ConnectResult& result) {
    ends.push_back(std::to_string(result.reason.code()) + (result.saved ? " saved" : ""));
  };
  flow.connect(draft, note);
  flow.connect({"https://other.example", "other-token", "other-key", true}, note);
  EXPECT_EQ(factory->runs.at(0)->stops, 1);
  EXPECT_THAT(ends, IsEmpty());
  factory->runs.at(0)->end(ExitReason::clean());  // as if the stop had come too late
  ASSERT_TRUE(spinUntil([&] { return ends.size() == 1; }));
  factory->runs.at(1)->end(ExitReason::clean());
  ASSERT_TRUE(spinUntil([&] { return ends.size() == 2; }));
  EXPECT_THAT(ends, ElementsAre("130", "0 saved"));
  EXPECT_THAT(saved(), ElementsAre("other-token", "other-key", "https://other.example"));
}

TEST_F(Connect, SavesAlthoughItWasCancelled) {
  using Call = FailingStore::Call;
  const struct {
    Call at;
    const char* llmKey;
    bool superseded;
  } table[] = {{Call::none, "new-key", false},       {Call::read, "", false},
               {Call::writeToken, "new-key", false}, {Call::writeKey, "new-key", false},
               {Call::writeToken, "", true},         {Call::writeKey, "new-key", true}};
  for (const auto& [at, llmKey, superseded] : table) {
    SCOPED_TRACE(static_cast<int>(at));
    EXPECT_TRUE(secrets->write("old-token", SecretAccount::driverToken));
    EXPECT_TRUE(secrets->write("old-key", SecretAccount::llmKey));
    draft.llmKey = llmKey;
    factory->runs.clear();
    factory->endsAtOnce.reset();
    if (at == Call::writeToken || at == Call::writeKey) factory->endsAtOnce = ExitReason::clean();
    secrets->reached.clear();
    secrets->goOn.clear();
    secrets->heldUp = at;
    secrets->cancelledPrompts = 0;
    std::optional<ConnectResult> first, second;
    flow.connect(draft, [&](const ConnectResult& result) { first = result; });
    ASSERT_TRUE(spinUntil(
        [&] { return at == Call::none ? factory->runs.size() == 1 : secrets->reached.isSet(); }));
    if (superseded) {
      flow.connect({"https://bad.example", "", "", false}, [&](const auto& r) { second = r; });
    } else {
      flow.cancel();
    }
    EXPECT_FALSE(first) << "completed within the call";
    secrets->goOn.set();
    ASSERT_TRUE(spinUntil([&] { return first && (second || !superseded); }));
    EXPECT_EQ(first->reason, ExitReason::stopped());
    EXPECT_FALSE(first->saved);
    waitForTheStore();
    EXPECT_THAT(saved(), ElementsAre("old-token", "old-key", ""));
    EXPECT_EQ(secrets->cancelledPrompts, at == Call::none ? 0 : 1);
    if (at == Call::none) {
      EXPECT_EQ(factory->runs[0]->stops, 1);
    }
    EXPECT_THAT(log->lines(), testing::Each(Not(testing::HasSubstr("settings saved"))));
  }
}

TEST_F(Connect, TroublesTheKeyringAfterACancel) {
  Event goOn;
  secretQueue().post([&] { goOn.wait(); });
  std::optional<ConnectResult> result;
  flow.connect(draft, [&](const ConnectResult& given) { result = given; });
  // Once the flow has let go of the run, the writes are asked for, behind the one that waits.
  ASSERT_TRUE(spinUntil([&] { return factory->runs.at(0).use_count() == 1; }));
  const int before = secrets->writes;
  flow.cancel();
  goOn.set();
  ASSERT_TRUE(spinUntil([&] { return result.has_value(); }));
  waitForTheStore();
  EXPECT_EQ(secrets->writes, before);
}

TEST_F(Connect, SavesHalfWhenTheCancelComesTooLate) {
  secrets->heldUp = FailingStore::Call::writeKey;
  std::optional<ConnectResult> result;
  flow.connect(draft, [&](const ConnectResult& given) { result = given; });
  ASSERT_TRUE(spinUntil([&] { return secrets->reached.isSet(); }));
  secrets->goOn.set();
  waitForTheStore();  // all is stored, of which the main thread has not heard
  flow.cancel();
  ASSERT_TRUE(spinUntil([&] { return result.has_value(); }));
  EXPECT_TRUE(result->saved);
  EXPECT_THAT(saved(), ElementsAre("new-token", "new-key", "https://s.example"));
}

TEST_F(Connect, LeavesATokenWhereThereWasNone) {
  EXPECT_TRUE(secrets->remove(SecretAccount::driverToken));
  secrets->failing = SecretAccount::llmKey;
  EXPECT_FALSE(connect().saved);
  EXPECT_EQ(secrets->read(SecretAccount::driverToken).value(), std::nullopt);
}

TEST_F(Connect, AsksTheKeyringInVain) {
  draft.llmKey = "";
  draft.serverURL = "https://";
  EXPECT_EQ(textOf(connect()),
            "Check the setup|The server URL must start with https:// (got "
            "https:).|5");
  draft.serverURL = "https://s.example";
  draft.token = "";
  EXPECT_EQ(connect().text.detail, "Not connected yet — press Connect to website.");
  EXPECT_EQ(secrets->reads + secrets->unlocks, 0);

  draft.token = "new-token";
  secrets->isRefused = true;
  EXPECT_EQ(textOf(connect()), "Could not read the Keychain|Not unlocked.|0");
  EXPECT_EQ(secrets->reads, 0) << "of a store that the user did not unlock";
}

TEST_F(Connect, LeavesADryRunBehind) {
  factory->endsAtOnce.reset();
  std::optional<ConnectResult> result;
  auto other =
      std::make_unique<ConnectFlow>(factory, secrets, settings, log, [this] { return ego; });
  other->dryRun(draft, false, [&](const ConnectResult& given) { result = given; });
  factory->runs.at(0)->end(ExitReason::clean());
  ASSERT_TRUE(spinUntil([&] { return result.has_value(); }));
  EXPECT_THAT(saved(), ElementsAre("old-token", "old-key", ""));
  EXPECT_FALSE(result->saved);

  result.reset();
  other->dryRun(draft, false, [&](const ConnectResult& given) { result = given; });
  other.reset();
  EXPECT_EQ(factory->runs.at(1)->stops, 1);
  factory->runs[1]->end(ExitReason::stopped());
  spin();
  EXPECT_FALSE(result) << "completed for a flow that is gone";
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
