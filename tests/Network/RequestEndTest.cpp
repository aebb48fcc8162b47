#include "VerdoDriverCore/System/Files.h"
#include "tests/Support/ApiFixture.h"
#include "tests/Support/Listener.h"

#include <poll.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class FirstByte : public HttpBodySink {
 public:
  bool onBytes(int, std::string_view) override {
    came.set();
    return true;
  }
  Event came;
};

class Heartbeat : public ApiFixture {};

TEST_F(Heartbeat, GoesOnAlthoughNobodyLooksAfterTheRequest) {
  service.faults().add({.delay = 60s});
  std::atomic<int> beats = 0;
  std::shared_ptr<HttpTask> waiting;
  std::thread caller([&] {
    EXPECT_FALSE(session->perform(helloRequest(), [&](const auto& task) { waiting = task; },
                                  {1ms, [&] { ++beats; }}));
  });
  EXPECT_TRUE(eventually([&] { return beats > 10; }));
  Event goOn;
  Event hangs;
  const auto task = session->task(helloRequest(), [&](const HttpResult&) {
    hangs.set();
    goOn.waitFor(20s);
  });
  task->start();
  task->cancel();
  EXPECT_TRUE(hangs.waitFor(20s));
  int before = beats;
  EXPECT_FALSE(eventually([&] { return beats > before + 1; }, 100ms));  // one may be on its way
  goOn.set();
  before = beats;
  EXPECT_TRUE(eventually([&] { return beats > before + 10; }));
  waiting->cancel();
  caller.join();
}

class Cancel : public ApiFixture {
 protected:
  /// Sends the request, waits until `ready`, and cancels.
  void expectFeltWhen(HttpRequest request, const std::function<bool()>& ready) {
    Event ended;
    HttpResult result;
    const auto task = session->task(std::move(request), [&](HttpResult outcome) {
      result = std::move(outcome);
      ended.set();
    });
    task->start();
    EXPECT_TRUE(ready());
    EXPECT_FALSE(ended.isSet());
    const auto begin = Clock::now();
    task->cancel();
    EXPECT_TRUE(ended.waitFor(20s));
    EXPECT_LT(Clock::now() - begin, kAtOnce);
    EXPECT_TRUE(!result && result.error().kind == TransportError::Kind::cancelled);
    task->cancel();
  }

  static constexpr auto kAtOnce = 5s;
};

TEST_F(Cancel, IsNotFeltInSomePhase) {
  // Before the start.
  bool cancelled = false;
  const auto task = session->task(helloRequest(), [&](HttpResult result) {
    cancelled = !result && result.error().kind == TransportError::Kind::cancelled;
  });
  task->cancel();
  task->start();
  EXPECT_TRUE(cancelled);
  EXPECT_EQ(service.requests().count(), 0u);

  // Connecting to one who does not answer.
  const Listener silent;
  auto request = helloRequest();
  request.url = "https://127.0.0.1:" + std::to_string(silent.port());
  UniqueFd connection;
  expectFeltWhen(request, [&] { return bool(connection = silent.accept()); });

  // Waiting for a reply.
  const auto hang = service.faults().add({.delay = 60s});
  expectFeltWhen(helloRequest(),
                 [&] { return service.requests().waitFor("hello", 1, kLong).has_value(); });
  EXPECT_TRUE(service.requests().waitForHangUps("hello", 1, kLong));
  service.faults().clear(hang);

  // In the middle of the body.
  service.faults().add({.delivery = local::Delivery::trickled, .bytesPerSecond = 150});
  request = helloRequest();
  const auto sink = std::make_shared<FirstByte>();
  request.sink = sink;
  expectFeltWhen(request, [&] { return sink->came.waitFor(20s); });
}

TEST_F(Cancel, CallWaitsForAnotherOnesTimeOrWithoutALimit) {
  service.faults().add({.delay = 60s});
  const struct {
    std::function<void()> call;
    Timings limits;
    std::chrono::milliseconds expected;
  } table[] = {
      {[&] { api->hello(); }, {.helloTimeout = 100ms}, 100ms},
      {[&] { api->poll(0.2, {}); }, {.pollMargin = 100ms}, 300ms},
      {[&] { api->lines(1, batch({})); }, {.postTimeout = 100ms}, 100ms},
      {[&] { api->complete(1, 0, {}); }, {.postTimeout = 100ms}, 100ms},
      {[&] { api->lines(1, batch({}), 100ms); }, {}, 100ms},
      {[&] { api->lines(1, batch({}), 30s); }, {.postTimeout = 100ms}, 100ms},
  };
  for (const auto& [call, limits, expected] : table) {
    auto given = options();
    given.timings = limits;
    make(std::move(given));
    const auto begin = Clock::now();
    EXPECT_THAT(failureOf(call), testing::EndsWith("-> URLError: Timeout was reached"));
    EXPECT_GE(Clock::now() - begin, expected);
    EXPECT_LT(Clock::now() - begin, 10s);
  }
}

class RequestLimits : public ApiFixture {
 protected:
  /// What the request ends with, its status or the sentence of its error, and when, in `took`.
  std::string outcomeOf(HttpRequest request) {
    const auto begin = Clock::now();
    const HttpResult result = session->perform(std::move(request));
    took = Clock::now() - begin;
    return result ? std::to_string(result->status) : result.error().description;
  }

  Clock::duration took{};
};

TEST_F(RequestLimits, DeadlineIsCutToTheLimitOfTheSession) {
  make(options(), {.caCertificates = "", .resourceLimit = 150ms});
  service.faults().add({.delay = 400ms});
  auto request = helloRequest();
  EXPECT_EQ(outcomeOf(request), "Timeout was reached");
  request.deadline = Clock::now() + 20s;
  EXPECT_EQ(outcomeOf(request), "200");
  constexpr double kMaxPoll = 3580;  // of the option --poll-wait
  EXPECT_GE(HttpSession::Options().resourceLimit, fromSeconds(kMaxPoll) + Timings().pollMargin);
}

TEST_F(RequestLimits, TimeoutEndsAReplyThatMovesOrSparesOneThatDoesNot) {
  auto request = helloRequest();
  request.timeout = 300ms;
  const auto hang = service.faults().add({.delay = 60s});
  EXPECT_EQ(outcomeOf(request), "Timeout was reached");
  EXPECT_GE(took, 300ms);
  EXPECT_LT(took, 2s);
  service.faults().clear(hang);

  // Some 400 bytes at 400 a second: longer than the time-out, but never silent for so long.
  service.faults().add({.delivery = local::Delivery::trickled, .bytesPerSecond = 400});
  EXPECT_EQ(outcomeOf(request), "200");
  EXPECT_GE(took, 600ms);
  request.deadline = Clock::now() + 400ms;
  EXPECT_EQ(outcomeOf(request), "Timeout was reached");
  EXPECT_LT(took, 2s);
  request.deadline.reset();
  request.maxBody = 100;
  EXPECT_EQ(outcomeOf(request), "The response is longer than 100 bytes");
}

TEST_F(RequestLimits, TimeoutEndsABodyThatIsTakenSlowly) {
  const Listener listener;
  const std::size_t size = 32 << 20;
  std::thread server([&] {
    const UniqueFd connection = listener.accept();
    std::vector<char> piece(1 << 20);
    std::size_t taken = 0;
    ssize_t got = 0;
    const auto take = [&] { return got = ::recv(connection.get(), piece.data(), piece.size(), 0); };
    for (; taken < size && take() > 0; taken += static_cast<std::size_t>(got)) {
      ::poll(nullptr, 0, 40);  // the speed of the road
    }
    EXPECT_EQ(writeAll(connection.get(), "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n").error, 0);
    ::shutdown(connection.get(), SHUT_WR);
    while (take() > 0) {
    }
  });
  auto request = helloRequest();
  request.url = "http://127.0.0.1:" + std::to_string(listener.port());
  request.method = "POST";
  request.body = std::make_shared<const ByteBuffer>(std::string(size, 'x'));
  request.timeout = 1000ms;
  EXPECT_EQ(outcomeOf(request), "200");
  EXPECT_GE(took, 1200ms);
  server.join();
}

TEST_F(RequestLimits, RequestSentAnewHasOnlyWhatTheFirstLeftOfItsTimeout) {
  auto request = helloRequest();
  EXPECT_EQ(outcomeOf(request), "200");
  // A connection that breaks after it was good for a while: libcurl tries another one by itself.
  service.faults().add({.count = 1, .delay = 400ms, .delivery = local::Delivery::reset});
  service.faults().add({.delay = 400ms});
  request.timeout = 600ms;
  EXPECT_EQ(outcomeOf(request), "200");
  EXPECT_EQ(service.requests().count(), 3u);
}

TEST_F(RequestLimits, ControlCharacterOfAHeaderIsSent) {
  for (const char character : {'\n', '\r', '\t', '\x01', '\x7f', '\0'}) {
    for (const bool inName : {false, true}) {
      auto request = helloRequest();
      const auto text = std::string("X-Se") + character + "cret: 1";
      request.headers.emplace_back(inName ? text : "X-Name", inName ? "1" : text);
      EXPECT_EQ(outcomeOf(request), "A header of the request holds a control character");
    }
  }
  EXPECT_EQ(service.requests().count(), 0u);
}

}  // namespace
}  // namespace verdo::test
