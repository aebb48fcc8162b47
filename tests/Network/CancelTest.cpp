#include "tests/Support/ApiFixture.h"
#include "tests/Support/Listener.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A listener whose queue is full: connects to it are never answered.
class SilentListener {
 public:
  SilentListener() {
    for (auto& filler : fillers_) {
      filler = UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      const auto* address = reinterpret_cast<const sockaddr*>(&listener_.address());
      static_cast<void>(::connect(filler.get(), address, sizeof listener_.address()));
    }
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(listener_.port()); }

 private:
  Listener listener_{0};
  UniqueFd fillers_[4];
};

class FirstByte : public HttpBodySink {
 public:
  bool onBytes(int, std::string_view) override {
    came.set();
    return true;
  }
  Event came;
};

class Cancel : public ApiFixture {
 protected:
  /// Sends the request, waits until `ready`, cancels, and gives how long that took to be felt.
  Clock::duration cancelWhen(HttpRequest request, const std::function<bool()>& ready) {
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
    const auto took = Clock::now() - begin;
    EXPECT_TRUE(result.error && result.error->kind == TransportError::Kind::cancelled);
    task->cancel();
    return took;
  }

  HttpRequest to(const std::string& url) const {
    HttpRequest request;
    request.url = url + "/api/driver/hello";
    request.headers = {{"Authorization", "Bearer " + service.token()},
                       {"X-VERDO-Driver-Protocol", "2"}};
    return request;
  }
};

constexpr auto kAtOnce = kSanitized ? 1000ms : 200ms;

TEST_F(Cancel, IsNotFeltInSomePhase) {
  // Before the start.
  bool cancelled = false;
  const auto task = session->task(to(service.url()), [&](HttpResult result) {
    cancelled = result.error && result.error->kind == TransportError::Kind::cancelled;
  });
  task->cancel();
  task->start();
  EXPECT_TRUE(cancelled);
  EXPECT_EQ(service.requestCount(), 0u);

  // Connecting: half a second later there is still neither success nor failure.
  const SilentListener silent;
  Event never;
  EXPECT_LT(cancelWhen(to(silent.url()), [&] { return !never.waitFor(500ms); }), kAtOnce);

  // Waiting for a reply.
  const auto hang = service.addFault({.delay = 60s});
  EXPECT_LT(cancelWhen(to(service.url()),
                       [&] { return service.waitForRequest("hello", 1, kLong).has_value(); }),
            kAtOnce);
  EXPECT_TRUE(service.waitForHangUps("hello", 1, kLong));
  service.clearFault(hang);

  // In the middle of the body.
  service.addFault({.delivery = local::Delivery::trickled, .bytesPerSecond = 150});
  auto request = to(service.url());
  const auto sink = std::make_shared<FirstByte>();
  request.sink = sink;
  EXPECT_LT(cancelWhen(request, [&] { return sink->came.waitFor(20s); }), kAtOnce);
}

TEST_F(Cancel, CancelAllLeavesACallerBlockedOrRefusesLaterPosts) {
  service.outage(local::OutageKind::hang, 60s);
  std::vector<std::string> messages(4);
  const std::vector<std::function<void()>> calls{
      [&] { api->hello(); },
      [&] { api->poll(25, {}); },
      [&] { api->lines(1, batch({"x"})); },
      [&] { api->complete(1, 0, std::nullopt); },
  };
  std::vector<std::thread> callers;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    callers.emplace_back([&, i] { messages[i] = failureOf(calls[i]); });
  }
  EXPECT_TRUE(service.waitForRequest("", 4, kLong));
  const auto begin = Clock::now();
  api->cancelAll();
  for (auto& caller : callers) caller.join();
  EXPECT_LT(Clock::now() - begin, kAtOnce);
  for (const auto& message : messages)
    EXPECT_THAT(message, testing::EndsWith("-> Cancelled: cancelled"));

  service.endOutage();
  EXPECT_EQ(failureOf(calls[1]), "GET /api/driver/poll?wait=25 -> Cancelled: cancelled");
  EXPECT_EQ(failureOf(calls[3]), "");
}

TEST_F(Cancel, CallWaitsForAnotherOnesTimeOrWithoutALimit) {
  const Api::Limits real;
  EXPECT_EQ(real.hello, 20s);
  EXPECT_EQ(real.pollMargin, 20s);
  EXPECT_EQ(real.post, 45s);
  EXPECT_EQ(HttpSession::Options().resourceLimit, 3600s);

  service.addFault({.delay = 60s});
  const struct {
    std::function<void()> call;
    Api::Limits limits;
    std::chrono::milliseconds expected;
    std::optional<double> cap{};
  } table[] = {
      {[&] { api->hello(); }, {.hello = 100ms}, 100ms},
      {[&] { api->poll(0.2, {}); }, {.pollMargin = 100ms}, 300ms},
      {[&] { api->lines(1, batch({})); }, {.post = 100ms}, 100ms},
      {[&] { api->complete(1, 0, {}); }, {.post = 100ms}, 100ms},
      {[&] { api->complete(1, 0, {}); }, {}, 100ms, 0.1},
      {[&] { api->hello(); }, {.hello = 100ms}, 100ms, 30},
  };
  for (const auto& [call, limits, expected, cap] : table) {
    auto given = options();
    given.limits = limits;
    given.timeoutCap = [cap = cap] { return cap; };
    make(std::move(given));
    const auto begin = Clock::now();
    EXPECT_THAT(failureOf(call), testing::EndsWith("-> URLError: Timeout was reached"));
    EXPECT_GE(Clock::now() - begin, expected);
    EXPECT_LT(Clock::now() - begin, 10s);
  }
}

TEST_F(Cancel, TimeoutEndsAReplyThatMovesOrSparesOneThatDoesNot) {
  auto request = to(service.url());
  request.timeout = 300ms;
  const auto hang = service.addFault({.delay = 60s});
  auto begin = Clock::now();
  auto result = session->perform(request);
  EXPECT_TRUE(result.error && result.error->kind == TransportError::Kind::timedOut);
  EXPECT_EQ(result.error->description, "Timeout was reached");
  EXPECT_GE(Clock::now() - begin, 300ms);
  EXPECT_LT(Clock::now() - begin, 2s);
  service.clearFault(hang);

  // Some 400 bytes at 400 a second: longer than the time-out, but never silent for so long.
  service.addFault({.delivery = local::Delivery::trickled, .bytesPerSecond = 400});
  begin = Clock::now();
  result = session->perform(request);
  EXPECT_TRUE(result.response && result.response->status == 200);
  EXPECT_GE(Clock::now() - begin, 600ms);

  request.deadline = Clock::now() + 400ms;
  begin = Clock::now();
  result = session->perform(request);
  EXPECT_TRUE(result.error && result.error->kind == TransportError::Kind::timedOut);
  EXPECT_LT(Clock::now() - begin, 2s);
}

}  // namespace
}  // namespace verdo::test
