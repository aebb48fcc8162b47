#include "VerdoDriver/Model/ConnectFlow.h"
#include "VerdoDriver/Model/EgoLocator.h"
#include "VerdoDriver/Model/SecretTask.h"
#include "tests/Support/AppFixture.h"

#include <atomic>

namespace verdo::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Not;

/// Fails every write to one account, and holds calls up as long as the test wants.
class FailingStore : public MemorySecretStore {
 public:
  Result<std::optional<std::string>> read(SecretAccount account) override {
    ++reads;
    reach(Call::read);
    if (isGone) return tl::make_unexpected(SecretError{SecretError::Kind::unavailable, 0, "Gone."});
    if (isLocked) return tl::make_unexpected(SecretError{SecretError::Kind::locked, 1, "Locked."});
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
    isLocked = isLocked && isRefused;
    if (!isRefused) return {};
    return tl::make_unexpected(SecretError{SecretError::Kind::locked, 1, "Not unlocked."});
  }
  void cancelPrompt() override { ++cancelledPrompts; }

  enum class Call { none, queued, read, writeToken, writeKey };
  std::optional<SecretAccount> failing;
  bool isRefused = false;
  std::atomic<bool> isLocked = false;  ///< until it is unlocked
  bool isGone = false;                 ///< what was stored; there is room for something new
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

class Connect : public AppFixture {
 protected:
  Connect() { putOldSecrets(); }
  void putOldSecrets() {
    EXPECT_TRUE(secrets->write("old-token", SecretAccount::driverToken));
    EXPECT_TRUE(secrets->write("old-key", SecretAccount::llmKey));
  }
  void begin() {
    result.reset();
    flow.connect(draft, [this](const ConnectResult& given) {
      EXPECT_FALSE(result) << "completed twice";
      result = given;
    });
    EXPECT_FALSE(result) << "completed within the call";
  }
  ConnectResult waitForTheEnd() {
    EXPECT_TRUE(spinUntil([&] { return result.has_value(); }));
    return result.value();
  }
  /// With a dry run that ends at once.
  ConnectResult connect(const ExitReason& reason = ExitReason::clean()) {
    factory->endsAtOnce = reason;
    begin();
    return waitForTheEnd();
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
  std::vector<std::string> saved() {
    return {secrets->read(SecretAccount::driverToken)->value_or(""),
            secrets->read(SecretAccount::llmKey)->value_or(""), settings.serverURL()};
  }

  std::shared_ptr<FailingStore> secrets = std::make_shared<FailingStore>();
  std::optional<std::string> ego = "/bin/ego";
  ConnectFlow flow{factory, secrets, settings, log, [this] { return ego; }};
  ConnectDraft draft{"https://s.example/", "new-token", "new-key", false};
  std::optional<ConnectResult> result;
};

TEST_F(Connect, SavesWhatWasRefusedOrFailed) {
  const auto clean = ExitReason::clean();
  const struct {
    ExitReason runEnds;
    std::function<void()> prepare;
    int exitCode;
    std::string text;  ///< as textOf gives it
  } table[] = {
      {clean, [this] { draft.serverURL = ""; }, 2, "Check the setup|Enter the server URL.|5"},
      {clean, [this] { draft.token = ""; }, 2,
       "Check the setup|Not connected yet — press Connect to website.|5"},
      {clean, [this] { ego.reset(); }, 127,
       "ego lite not found|Install ego lite and log in to LinkedIn there once.|1"},
      {clean, [this] { secrets->failing = SecretAccount::driverToken; }, 0,
       "Could not save to the Keychain|The keyring is locked.|0"},
      {clean, [this] { secrets->failing = SecretAccount::llmKey; }, 0,
       "Could not save to the Keychain|The keyring is locked.|0"},
      {ExitReason::serverUnreachable("m"), [] {}, 1, "Server unreachable|m — retrying|5"},
      {ExitReason::tokenRevoked("m"), [] {}, 3,
       "Disconnected|The website no longer accepts this Mac — press Connect to website in Setup "
       "to pair again.|3"},
      {ExitReason::llmKeyRejected("m"), [] {}, 7,
       "DeepSeek rejected the key ····-key|Nothing saved — check the key and try again.|4"},
      {ExitReason::stopped(), [] {}, 130, "Stopped|The driver is not running.|0"},
  };
  const auto original = draft;
  for (const auto& row : table) {
    draft = original;
    ego = "/bin/ego";
    secrets->failing.reset();
    row.prepare();
    const auto end = connect(row.runEnds);
    EXPECT_EQ(end.reason.code(), row.exitCode) << row.text;
    EXPECT_EQ(textOf(end), row.text);
    EXPECT_FALSE(end.saved);
    EXPECT_THAT(saved(), ElementsAre("old-token", "old-key", ""));
  }
  EXPECT_TRUE(secrets->remove(SecretAccount::driverToken));
  secrets->failing = SecretAccount::llmKey;
  EXPECT_FALSE(connect().saved);
  EXPECT_EQ(secrets->read(SecretAccount::driverToken).value(), std::nullopt)
      << "left a token where there was none";
  EXPECT_TRUE(appLog.has("[ConnectFlow] refused before running: Enter the server URL."));
  EXPECT_TRUE(appLog.has("[ConnectFlow] dry run → exit 3"));
  EXPECT_TRUE(appLog.has("[ConnectFlow] keychain write failed: The keyring is locked."));
}

TEST_F(Connect, IsNoMoreToBeHadOnceTheKeyringIsGone) {
  secrets->isGone = true;
  secrets->failing = SecretAccount::llmKey;
  EXPECT_FALSE(connect().saved);
  secrets->isGone = false;
  EXPECT_EQ(secrets->read(SecretAccount::driverToken).value(), std::nullopt) << "one without a key";
  secrets->isGone = true;
  secrets->failing.reset();
  EXPECT_TRUE(connect().saved);
  secrets->isGone = false;
  EXPECT_THAT(saved(), ElementsAre("new-token", "new-key", "https://s.example"));
}

TEST_F(Connect, LosesWhatWasProven) {
  draft.allowInsecure = true;
  begin();
  ASSERT_EQ(factory->runs.size(), 1u);
  const auto& run = *factory->runs[0];
  EXPECT_TRUE(run.config.dryRun && run.config.checkLLM && run.config.insecure);
  EXPECT_EQ(run.config.server, "https://s.example");
  EXPECT_EQ(run.config.execCommand, EgoLocator::command());
  run.observer.lock()->driverConnected("ann", 1, "1");
  factory->runs[0]->end(ExitReason::clean());
  const auto end = waitForTheEnd();
  EXPECT_EQ(end.username, "ann");
  EXPECT_TRUE(end.saved);
  EXPECT_THAT(saved(), ElementsAre("new-token", "new-key", "https://s.example"));
  EXPECT_TRUE(settings.allowInsecure());
  EXPECT_THAT(log->lines(),
              ElementsAre("» dry run (check_llm=true) against https://s.example, token ····oken",
                          "» connected as ann — settings saved"));
  EXPECT_THAT(appLog.lines(), Each(Not(testing::ContainsRegex("new-token|new-key"))));
}

TEST_F(Connect, SavesOneDraftsUrlWithTheOthersToken) {
  begin();
  draft = {"https://other.example", "other-token", "other-key", true};
  std::optional<ConnectResult> other;
  flow.connect(draft, [&](const ConnectResult& given) { other = given; });
  EXPECT_EQ(factory->runs.at(0)->stops, 1);
  EXPECT_FALSE(result) << "completed within the call";
  factory->runs[0]->end(ExitReason::clean());  // as if the stop had come too late
  EXPECT_EQ(waitForTheEnd().reason, ExitReason::stopped());
  EXPECT_FALSE(result->saved || other);
  factory->runs.at(1)->end(ExitReason::clean());
  ASSERT_TRUE(spinUntil([&] { return other.has_value(); }));
  EXPECT_TRUE(other->saved);
  EXPECT_THAT(saved(), ElementsAre("other-token", "other-key", "https://other.example"));
}

TEST_F(Connect, SavesAlthoughItWasCancelled) {
  using Call = FailingStore::Call;
  const struct {
    Call at;
    const char* llmKey;
    bool superseded;
    int writes;  ///< each of which may ask the user
  } table[] = {{Call::none, "new-key", false, 0},
               {Call::queued, "new-key", false, 0},
               {Call::read, "", false, 0},
               {Call::read, "new-key", false, 0},
               {Call::writeToken, "", true, 2},
               {Call::writeToken, "new-key", false, 2},
               {Call::writeKey, "new-key", false, 4},
               {Call::writeKey, "new-key", true, 4}};
  for (const auto& [at, llmKey, superseded, writes] : table) {
    SCOPED_TRACE(static_cast<int>(at));
    putOldSecrets();
    draft.llmKey = llmKey;
    factory->runs.clear();
    factory->endsAtOnce.reset();
    if (at != Call::none) factory->endsAtOnce = ExitReason::clean();
    secrets->reached.clear();
    secrets->goOn.clear();
    secrets->heldUp = at;
    secrets->cancelledPrompts = secrets->writes = 0;
    if (at == Call::queued) secretQueue().post([&] { secrets->goOn.wait(); });
    begin();
    ASSERT_TRUE(spinUntil([&] {
      if (at > Call::queued) return secrets->reached.isSet();
      // Once the flow has let go of the run, the writes are asked for, behind the one that waits.
      return at == Call::none || factory->runs.at(0).use_count() == 1;
    }));
    std::optional<ConnectResult> second;
    if (superseded) {
      flow.connect({"https://bad.example", "", "", false}, [&](const auto& r) { second = r; });
    } else {
      flow.cancel();
    }
    EXPECT_FALSE(result) << "completed within the call";
    secrets->goOn.set();
    EXPECT_EQ(waitForTheEnd().reason, ExitReason::stopped());
    EXPECT_FALSE(result->saved);
    ASSERT_TRUE(spinUntil([&] { return second || !superseded; }));
    waitForTheStore();
    EXPECT_THAT(saved(), ElementsAre("old-token", "old-key", ""));
    EXPECT_EQ(secrets->cancelledPrompts, at > Call::queued ? 1 : 0);
    EXPECT_EQ(secrets->writes, writes) << "troubled the keyring";
    EXPECT_TRUE(at != Call::none || factory->runs[0]->stops == 1);
    EXPECT_THAT(log->lines(), Each(Not(testing::HasSubstr("settings saved"))));
  }
}

TEST_F(Connect, SavesHalfWhenTheCancelComesTooLate) {
  secrets->heldUp = FailingStore::Call::writeKey;
  factory->endsAtOnce = ExitReason::clean();
  begin();
  ASSERT_TRUE(spinUntil([&] { return secrets->reached.isSet(); }));
  secrets->goOn.set();
  waitForTheStore();  // all is stored, of which the main thread has not heard
  flow.cancel();
  EXPECT_TRUE(waitForTheEnd().saved);
  EXPECT_THAT(saved(), ElementsAre("new-token", "new-key", "https://s.example"));
}

TEST_F(Connect, LeavesALockedKeyringToTheUser) {
  secrets->isLocked = secrets->isRefused = true;
  EXPECT_EQ(textOf(connect()), "Could not save to the Keychain|Not unlocked.|0");
  EXPECT_EQ(secrets->unlocks, 1);
  secrets->isRefused = false;
  EXPECT_TRUE(connect().saved);
  EXPECT_THAT(saved(), ElementsAre("new-token", "new-key", "https://s.example"));
}

TEST_F(Connect, AsksTheKeyringInVainOrErasesItsKeyWithAnEmptyOne) {
  draft.llmKey = "";
  draft.serverURL = "https://";
  EXPECT_EQ(connect().text.title, "Check the setup");
  EXPECT_EQ(secrets->reads + secrets->unlocks, 0);
  draft.serverURL = "https://s.example";
  secrets->isRefused = true;
  EXPECT_EQ(textOf(connect()), "Could not read the Keychain|Not unlocked.|0");
  EXPECT_EQ(secrets->reads, 0) << "of a store that the user did not unlock";

  secrets->isRefused = false;
  EXPECT_EQ(connect().reason, ExitReason::clean());
  EXPECT_EQ(factory->runs.at(0)->config.llmKey, "old-key");
  EXPECT_THAT(saved(), ElementsAre("new-token", "old-key", "https://s.example"));
  EXPECT_TRUE(secrets->remove(SecretAccount::llmKey));
  EXPECT_EQ(textOf(connect()), "Check the setup|Paste the DeepSeek key first.|5");
}

TEST_F(Connect, LeavesADryRunBehindOrSavesIt) {
  auto other =
      std::make_unique<ConnectFlow>(factory, secrets, settings, log, [this] { return ego; });
  const auto note = [&](const ConnectResult& given) { result = given; };
  other->dryRun(draft, false, note);
  factory->runs.at(0)->end(ExitReason::clean());
  EXPECT_FALSE(waitForTheEnd().saved);
  EXPECT_THAT(saved(), ElementsAre("old-token", "old-key", ""));
  result.reset();
  other->dryRun(draft, false, note);
  other.reset();
  EXPECT_EQ(factory->runs.at(1)->stops, 1);
  factory->runs[1]->end(ExitReason::stopped());
  spin();
  EXPECT_FALSE(result) << "completed for a flow that is gone";
}

}  // namespace
}  // namespace verdo::test
