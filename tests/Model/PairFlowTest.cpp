#include "VerdoDriver/Model/PairFlow.h"
#include "tests/Support/AppFixture.h"
#include "tests/Support/ScriptedPairing.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using Error = PairingError;

const PairingPoll kPending{PairingPoll::Status::pending, "", ""};
const PairingPoll kDenied{PairingPoll::Status::denied, "", ""};
const PairingPoll kExpired{PairingPoll::Status::expired, "", ""};
const PairingPoll kApproved{PairingPoll::Status::approved, "token-6789", "ann"};
const std::string kTooLate =
    "The request expired before it was approved — press Connect to website again.";

class PairFlowTest : public AppFixture {
 protected:
  void start() {
    flow->start(" https://verdo.example/ ", false, [this](auto token, auto) { given += token; });
  }
  void answerStart(std::chrono::seconds expiresIn = 600s, std::chrono::seconds interval = 5s,
                   const std::string& path = "/pair?c=AB") {
    service->starts.back().answer(PairingStart{"secret-code", "AB-CD", path, expiresIn, interval});
  }
  /// Starts anew, up to the first poll.
  void startPolling() {
    start();
    answerStart();
    clock->advance(5s);
  }
  void answer(const PairingPoll& reply) { service->polls.back().answer(reply); }
  /// "idle", "waiting", "connecting", or why it failed.
  std::string state() const {
    const auto* failed = std::get_if<PairingFailed>(&flow->state());
    const char* const names[] = {"idle", "waiting", "connecting"};
    return failed ? failed->message : names[flow->state().index()];
  }

  const std::shared_ptr<ScriptedPairing> service = std::make_shared<ScriptedPairing>();
  std::string opened;
  std::string given;
  std::unique_ptr<PairFlow> flow = std::make_unique<PairFlow>(
      service, [this](auto url) { opened += url; }, [] { return "my-computer"; }, log, clock);
};

TEST_F(PairFlowTest, DeadlineIsTooShortOrIsPolledPast) {
  start();
  answerStart(-7s, 0s);
  for (int second = 1; second <= 30; ++second) {
    clock->advance(1s);
    answer(kPending);
  }
  clock->advance(1s);
  EXPECT_EQ(service->polls.size(), 30u);
  EXPECT_EQ(state(), kTooLate);
}

TEST_F(PairFlowTest, FailureTellsSomethingElseOrKeepsWhoWaitsForTheToken) {
  const auto link = [this](const char* path) { return [=, this] { answerStart(600s, 5s, path); }; };
  const auto reply = [this](const PairingPoll& poll) {
    return [=, this] { answerStart(), clock->advance(5s), answer(poll); };
  };
  const char* const badLink = "The server sent an invalid approve link.";
  const struct {
    std::function<void()> fail;
    std::string failure;
  } table[] = {
      {[&] { service->starts.back().answer(tl::make_unexpected(Error::http(503, "busy"))); },
       "Could not reach https://verdo.example: HTTP 503: busy"},
      {link("@evil.example/"), badLink},
      {link(".evil.example/"), badLink},
      {link(":443/"), badLink},
      {link(":x@verdo.example/"), badLink},
      {reply(kDenied), "Denied in the browser — nothing was connected."},
      {reply(kExpired), kTooLate},
      {[&] { answerStart(1s, 600s), clock->advance(31s); }, kTooLate},
      {[&] { answerStart(), flow->cancel(); }, "idle"},
  };
  for (const auto& [fail, failure] : table) {
    const auto key = std::make_shared<std::string>("llm-key");
    flow->start("https://verdo.example", false, [key](auto, auto) {});
    fail();
    EXPECT_EQ(state(), failure);
    EXPECT_EQ(key.use_count(), 1) << failure;
  }
  EXPECT_TRUE(log->has("✗ pairing request failed: HTTP 503: busy"));
  const auto asked = service->starts.size();
  flow->start("http://verdo.example", false, {});
  EXPECT_TRUE(appLog.has("verdo.connect [PairFlow] refused: " + state()));
  EXPECT_EQ(service->starts.size(), asked);
}

TEST_F(PairFlowTest, AbandonedPairingGoesOn) {
  startPolling();
  const auto late = service->polls.back().answer;
  start();
  EXPECT_TRUE(log->has("» pairing cancelled"));
  late(kApproved);
  EXPECT_EQ(state(), "idle");
  answerStart();
  late(kDenied);
  late(kPending);
  EXPECT_EQ(state(), "waiting");
  EXPECT_EQ(clock->pendingCount(), 1u);
  flow->cancel();
  clock->advance(1000s);
  EXPECT_EQ(service->polls.size(), 1u);
  EXPECT_EQ(given, "");
  opened.clear();
  start();
  flow->cancel();
  answerStart();
  EXPECT_EQ(state() + opened, "idle");
}

TEST_F(PairFlowTest, BacksOffTooLongOrGivesUpTooSoon) {
  const struct {
    Error error;
    bool isFinal;
  } table[] = {{Error::transport("t"), false}, {Error::badReply("b"), false},
               {Error::http(399, ""), false},  {Error::http(400, ""), true},
               {Error::http(429, ""), false},  {Error::http(499, ""), true},
               {Error::http(500, ""), false}};
  for (const auto& [error, isFinal] : table) {
    startPolling();
    const auto polls = service->polls.size();
    for (const std::size_t again : {1u, 2u}) {  // the pause does not grow
      service->polls.back().answer(tl::make_unexpected(error));
      if (isFinal) break;
      clock->advance(9999ms);
      EXPECT_EQ(service->polls.size(), polls + again - 1);
      clock->advance(1ms);
      EXPECT_EQ(service->polls.size(), polls + again);
    }
    EXPECT_EQ(state(),
              isFinal ? "The server refused the request: " + error.errorDescription() : "waiting");
    if (isFinal) continue;
    answer(kPending);  // and is the plain one again after an answer
    clock->advance(5s);
    EXPECT_EQ(service->polls.size(), polls + 3);
  }
}

TEST_F(PairFlowTest, ConnectingEndsTwiceOrBeforeItBegan) {
  startPolling();
  flow->endConnecting("not now");
  EXPECT_EQ(state(), "waiting");
  answer(kApproved);
  EXPECT_EQ(given + state(), "token-6789connecting");
  flow->endConnecting({});
  flow->endConnecting("again");
  EXPECT_EQ(state(), "idle");
}

TEST_F(PairFlowTest, ObserverIsOverrun) {
  const auto cancel = [this](const auto&) { flow->cancel(); };
  const auto connection = QObject::connect(flow.get(), &PairFlow::stateChanged, cancel);
  startPolling();
  EXPECT_EQ(state() + opened, "idle");
  QObject::disconnect(connection);
  startPolling();
  QObject::connect(flow.get(), &PairFlow::stateChanged, [this] { flow.reset(); });
  answer(kApproved);
  EXPECT_EQ(given, "");
}

}  // namespace
}  // namespace verdo::test
