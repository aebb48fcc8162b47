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
using testing::HasSubstr;

class UnwatchedSocket : public ApiFixture {
 protected:
  void TearDown() override {
    isQueueFull = false;
    ApiFixture::TearDown();
  }

  /// Calls on one session that fail, and one that goes well afterwards.
  void expectFailuresToPass() {
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
};

TEST_F(UnwatchedSocket, LeavesTransfersHangingOrBehind) {
  expectFailuresToPass();
  // The same for those that share a connection.
  const Certificates certificates;
  const auto front = std::make_unique<Front>(service.port(), &certificates);
  auto given = options();
  given.base = front->url();
  make(std::move(given), {.caCertificates = contentOf(certificates.authority())});
  expectFailuresToPass();
  api.reset();
  session.reset();
}

}  // namespace
}  // namespace verdo::test
