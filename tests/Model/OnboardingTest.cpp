#include "VerdoDriver/Model/Onboarding.h"
#include "tests/Support/AppFixture.h"
#include "tests/Support/ScriptedPairing.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;

class OnboardingTest : public AppFixture {
 protected:
  /// Pairs up to the dry run.
  void approve(const std::string& key) {
    onboarding.start("https://verdo.example/", false, key, note());
    service->starts.back().answer(PairingStart{"code", "AB-CD", "/pair", 600s, 5s});
    clock->advance(5s);
    service->polls.back().answer(PairingPoll{PairingPoll::Status::approved, "token-1234", "ann"});
    EXPECT_TRUE(std::holds_alternative<PairingConnecting>(pairing.state()));
  }
  ConnectFlow::Completion note() {
    result.reset();
    return [this](const ConnectResult& given) { result = given; };
  }
  /// Ends the last dry run; gives what the pairing shows then: "" when nothing.
  std::string end(const ExitReason& reason) {
    factory->runs.back()->end(reason);
    EXPECT_TRUE(spinUntil([&] { return result.has_value(); }));
    const auto* failed = std::get_if<PairingFailed>(&pairing.state());
    EXPECT_TRUE(failed || std::holds_alternative<PairingIdle>(pairing.state()));
    return failed ? failed->message : "";
  }
  std::string stored(SecretAccount account) { return secrets->read(account)->value_or(""); }

  const std::shared_ptr<ScriptedPairing> service = std::make_shared<ScriptedPairing>();
  const std::shared_ptr<MemorySecretStore> secrets = std::make_shared<MemorySecretStore>();
  PairFlow pairing{service, [](const auto&) {}, [] { return "box"; }, log, clock};
  ConnectFlow connecting{factory, secrets, settings, log, [] { return "/bin/ego"; }};
  Onboarding onboarding{pairing, connecting};
  std::optional<ConnectResult> result;
};

TEST_F(OnboardingTest, HidesWhatCameOfARetryAfterAnotherConnectHadItsTurn) {
  approve("key");
  connecting.connect({"https://other.example", "other", "other", false}, {});
  ASSERT_TRUE(spinUntil([&] { return result.has_value(); }));
  factory->runs.back()->end(ExitReason::tokenRevoked(""));
  ASSERT_TRUE(onboarding.hasApproval());
  onboarding.retry("key", note());
  EXPECT_EQ(pairing.state(), PairingState(PairingConnecting{"ann"}));
  EXPECT_TRUE(end(ExitReason::serverUnreachable("gone")).starts_with("Server unreachable"));
}

TEST_F(OnboardingTest, KeepsATokenThatIsOfNoUse) {
  approve("key");
  EXPECT_TRUE(end(ExitReason::tokenRevoked("")).starts_with("Disconnected — "));
  EXPECT_FALSE(onboarding.hasApproval());
  approve("key");
  end(ExitReason::serverUnreachable("gone"));
  EXPECT_TRUE(onboarding.hasApproval());
  onboarding.cancel();
  EXPECT_FALSE(onboarding.hasApproval());
}

TEST_F(OnboardingTest, ConnectsAPairingThatWasCancelled) {
  approve("key");
  onboarding.cancel();
  EXPECT_EQ(factory->runs.back()->stops, 1);
  EXPECT_EQ(end(ExitReason::clean()), "");
  EXPECT_EQ(result->reason, ExitReason::stopped());
  EXPECT_TRUE(spinUntil([&] { return factory->runs.back().use_count() == 1; }));
  EXPECT_EQ(stored(SecretAccount::driverToken), "");

  // What is told of the one before must not end the next one.
  approve("first");
  onboarding.cancel();
  approve("second");
  EXPECT_TRUE(spinUntil([&] { return result.has_value(); }));  // of the first
  EXPECT_TRUE(std::holds_alternative<PairingConnecting>(pairing.state()));
}

}  // namespace
}  // namespace verdo::test
