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
    EXPECT_TRUE(!result && result.error().kind == TransportError::Kind::cancelled);
    task->cancel();
    return took;
  }
};

constexpr auto kAtOnce = kSanitized ? 1000ms : 200ms;

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

  // Connecting: half a second later there is still neither success nor failure.
  const SilentListener silent;
  auto request = helloRequest();
  request.url = silent.url();
  Event never;
  EXPECT_LT(cancelWhen(request, [&] { return !never.waitFor(500ms); }), kAtOnce);

  // Waiting for a reply.
  const auto hang = service.faults().add({.delay = 60s});
  EXPECT_LT(cancelWhen(helloRequest(),
                       [&] { return service.requests().waitFor("hello", 1, kLong).has_value(); }),
            kAtOnce);
  EXPECT_TRUE(service.requests().waitForHangUps("hello", 1, kLong));
  service.faults().clear(hang);

  // In the middle of the body.
  service.faults().add({.delivery = local::Delivery::trickled, .bytesPerSecond = 150});
  request = helloRequest();
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
  EXPECT_TRUE(service.requests().waitFor("", 4, kLong));
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

}  // namespace
}  // namespace verdo::test
