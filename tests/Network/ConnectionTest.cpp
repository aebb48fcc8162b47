#include "VerdoDriverCore/Network/JsonBody.h"
#include "tests/Support/ApiFixture.h"
#include "tests/Support/Front.h"

#include <atomic>
#include <cerrno>
#include <future>

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<bool> isQueueFull = false;

}  // namespace

/// Stands before the system's own: the queue can be full, as when a user watches too much.
extern "C" int epoll_ctl(int queue, int operation, int fd, epoll_event* event) noexcept {
  if (operation == EPOLL_CTL_ADD && isQueueFull) {
    errno = ENOSPC;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_epoll_ctl, queue, operation, fd, event));
}

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::HasSubstr;

/// An Api that speaks HTTP/2 to the service, over a road that can die.
class SilentPath : public ApiFixture {
 protected:
  SilentPath() : front(std::make_unique<Front>(service.port(), &certificates)) {
    auto given = options();
    given.base = front->url();
    given.timings.helloTimeout = kTimeout;
    given.timings.postTimeout = kTimeout;
    make(std::move(given), {.caCertificates = contentOf(certificates.authority()),
                            .pingTimeout = kTimeout,
                            .dropInterval = kDropInterval});
  }
  void TearDown() override {
    api.reset();
    session.reset();
    front.reset();
    ApiFixture::TearDown();
  }
  /// A long poll that has arrived; its message ends in the future, "" when it is well.
  std::future<std::string> beginPoll() {
    const auto before = service.requests().count("poll");
    auto poll =
        std::async(std::launch::async, [this] { return failureOf([&] { api->poll(25, {}); }); });
    EXPECT_TRUE(service.requests().waitFor("poll", before + 1, kLong));
    return poll;
  }

  static constexpr auto kTimeout = 600ms;
  static constexpr auto kDropInterval = 1000ms;

  const Certificates certificates;
  std::unique_ptr<Front> front;
};

TEST_F(SilentPath, RequestThatSharesADeadConnectionWaitsForItsOwnTimeout) {
  auto poll = beginPoll();
  front->swallow();
  const auto begin = Clock::now();
  EXPECT_THAT(failureOf([&] { api->hello(); }), HasSubstr("Timeout was reached"));
  ASSERT_EQ(poll.wait_for(kLong), std::future_status::ready);
  EXPECT_LT(Clock::now() - begin, 10s);
  EXPECT_THAT(poll.get(), HasSubstr("no longer answers"));
}

TEST_F(SilentPath, RequestIsEndedThoughItsConnectionAnswersThePing) {
  auto poll = beginPoll();
  const auto hang = service.faults().add({.endpoint = "hello", .delay = 60s});
  EXPECT_THAT(failureOf([&] { api->hello(); }), HasSubstr("Timeout was reached"));
  service.faults().clear(hang);
  // Twice the time that an unanswered ping would have been given.
  EXPECT_EQ(poll.wait_for(2 * kTimeout), std::future_status::timeout);
  addJob("");
  EXPECT_EQ(poll.get(), "");
  // The connection is done with what it had, and nothing new goes over it.
  EXPECT_EQ(failureOf([&] { api->hello(); }), "");
  EXPECT_EQ(front->connections(), 2);
}

TEST_F(SilentPath, BodySentAnewLacksWhatWasReadBefore) {
  HttpRequest request;
  request.method = "POST";
  request.url = front->url() + "/llm/v1/chat/completions";
  const auto body = std::make_shared<const JsonBody>(JV(std::string(300'000, 'x')));
  request.source = body;
  EXPECT_EQ(failureOf([&] { api->hello(); }), "");
  EXPECT_EQ(front->refuse(), 1);
  // By its reply the connection knows that it has no room.
  EXPECT_EQ(failureOf([&] { api->hello(); }), "");
  const auto result = session->perform(request);
  EXPECT_TRUE(result) << result.error().description;
  const auto came = service.requests().waitFor("chat", 1, kLong);
  ASSERT_TRUE(came);
  EXPECT_EQ(came->bodySize, body->size());
  EXPECT_EQ(came->body.front(), '"');
}

TEST_F(SilentPath, CallGoesOverTheConnectionOfADownload) {
  auto poll = beginPoll();
  service.faults().add({.endpoint = "files", .delay = 2s});
  const auto file = service.files().add({.name = "a.txt", .content = "the file"});
  auto download = std::async(std::launch::async, [&] {
    return failureOf([&] { api->download(file, path("a.txt"), kLong); });
  });
  ASSERT_TRUE(service.requests().waitFor("files", 1, kLong));
  EXPECT_EQ(failureOf([&] { api->hello(); }), "");
  EXPECT_EQ(front->leave(), 1);
  EXPECT_EQ(failureOf([&] { api->hello(); }), "");
  EXPECT_EQ(download.get(), "");
  EXPECT_EQ(contentOf(path("a.txt")), "the file");
  addJob("");
  EXPECT_EQ(poll.get(), "");
}

TEST_F(SilentPath, ChangeOfTheNetworkIsTakenForAFailure) {
  auto poll = beginPoll();
  front->swallow();
  auto begin = Clock::now();
  api->networkChanged();
  EXPECT_TRUE(service.requests().waitFor("poll", 2, kLong));
  EXPECT_LT(Clock::now() - begin, 2s);
  // Soon after the first one, another has to wait.
  front->swallow();
  begin = Clock::now();
  api->networkChanged();
  api->networkChanged();
  EXPECT_TRUE(service.requests().waitFor("poll", 3, kLong));
  EXPECT_GT(Clock::now() - begin, kDropInterval / 2);
  addJob("");
  EXPECT_EQ(poll.get(), "");
  EXPECT_EQ(service.requests().count("poll"), 3u);
}

TEST_F(SilentPath, UnwatchedSocketLeavesTransfersHangingOrBehind) {
  // First with a connection that calls share, then with one for each.
  for (const auto& remake : std::vector<std::function<void()>>{[] {}, [this] { make(); }}) {
    remake();
    EXPECT_EQ(failureOf([&] { api->hello(); }), "");
    for (int round = 0; round < 3; ++round) {
      isQueueFull = true;
      std::vector<std::future<std::string>> calls;
      for (int i = 0; i < 8; ++i) {
        calls.push_back(std::async(std::launch::async,
                                   [this] { return failureOf([&] { api->poll(25, {}); }); }));
      }
      for (auto& call : calls) {
        EXPECT_THAT(call.get(),
                    HasSubstr("cannot be watched (epoll_ctl: No space left on device)"));
      }
      isQueueFull = false;
      EXPECT_EQ(failureOf([&] { api->hello(); }), "");
    }
  }
}

}  // namespace
}  // namespace verdo::test
