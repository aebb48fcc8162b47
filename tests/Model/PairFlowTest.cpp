#include "VerdoDriver/Model/PairFlow.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/ManualClock.h"
#include "tests/Support/RecordingDriverLog.h"
#include "tests/Support/ScriptedPairing.h"

#include <gtest/gtest.h>

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

class PairFlowTest : public testing::Test {
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
  const std::shared_ptr<RecordingDriverLog> log = std::make_shared<RecordingDriverLog>();
  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
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

TEST_F(PairFlowTest, FailedStartTellsSomethingElse) {
  AppLogCapture systemLog;
  flow->start("http://verdo.example", false, {});
  EXPECT_TRUE(systemLog.has("verdo.connect [PairFlow] refused: " + state()));
  EXPECT_TRUE(service->starts.empty());
  start();
  service->starts.back().answer(tl::make_unexpected(Error::http(503, "busy")));
  EXPECT_TRUE(log->has("✗ pairing request failed: HTTP 503: busy"));
  flow->cancel();
  EXPECT_EQ(state(), "Could not reach https://verdo.example: HTTP 503: busy");
  for (const char* path : {"@evil.example/", ".evil.example/", ":443/", ":x@verdo.example/"}) {
    start();
    answerStart(600s, 5s, path);
    EXPECT_EQ(state(), "The server sent an invalid approve link.") << path;
  }
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
}

TEST_F(PairFlowTest, FailedPairingKeepsWhoWaitsForTheToken) {
  const auto refused = tl::make_unexpected(Error::http(403, "no"));
  const struct {
    const char* how;
    std::function<void()> fail;
  } table[] = {
      {"no code", [&] { service->starts.back().answer(refused); }},
      {"bad link", [&] { answerStart(600s, 5s, "@evil.example/"); }},
      {"denied", [&] { answerStart(), clock->advance(5s), answer(kDenied); }},
      {"expired", [&] { answerStart(), clock->advance(5s), answer(kExpired); }},
      {"refused",
       [&] { answerStart(), clock->advance(5s), service->polls.back().answer(refused); }},
      {"too late", [&] { answerStart(1s, 600s), clock->advance(600s); }},
      {"cancelled", [&] { answerStart(), flow->cancel(); }},
  };
  for (const auto& [how, fail] : table) {
    const auto key = std::make_shared<std::string>("llm-key");
    flow->start("https://verdo.example", false, [key](auto, auto) {});
    EXPECT_EQ(key.use_count(), 2);
    fail();
    EXPECT_EQ(key.use_count(), 1) << how;
  }
}

TEST_F(PairFlowTest, BacksOffTooLongOrGivesUpTooSoon) {
  const struct {
    Error error;
    bool isFinal;
  } table[] = {
      {Error::transport("t"), false}, {Error::badReply("b"), false}, {Error::http(307, ""), false},
      {Error::http(399, ""), false},  {Error::http(400, ""), true},  {Error::http(403, ""), true},
      {Error::http(428, ""), true},   {Error::http(429, ""), false}, {Error::http(499, ""), true},
      {Error::http(500, ""), false},  {Error::refused("r"), false}};
  for (const auto& [error, isFinal] : table) {
    startPolling();
    const auto polls = service->polls.size();
    for (const std::size_t again : {1u, 2u, 3u}) {  // the pause does not grow
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
    EXPECT_EQ(service->polls.size(), polls + 4);
  }
}

TEST_F(PairFlowTest, ConnectingEndsWronglyOrTwice) {
  flow->endConnecting("not now");
  EXPECT_EQ(state(), "idle");
  startPolling();
  flow->endConnecting("not now");
  EXPECT_EQ(state(), "waiting");
  for (const auto& failure : {std::optional<std::string>("no key"), {}}) {
    startPolling();
    answer(kApproved);
    EXPECT_EQ(state(), "connecting");
    flow->endConnecting(failure);
    EXPECT_EQ(state(), failure.value_or("idle"));
    flow->endConnecting("again");
    EXPECT_EQ(state(), failure.value_or("idle"));
  }
  EXPECT_EQ(given, "token-6789token-6789");
  startPolling();
  answer(kApproved);
  flow->cancel();
  flow->endConnecting("too late");
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
