#include "VerdoDriverCore/Network/Poller.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace verdo {
namespace {

constexpr int kMaxAtOnce = 256;

[[noreturn]] void fail(const char* call) {
  throw std::system_error(errno, std::generic_category(), call);
}

}  // namespace

Poller::Poller()
    : queue_(::epoll_create1(EPOLL_CLOEXEC)), wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!queue_) fail("epoll_create1");
  if (!wakeUp_) fail("eventfd");
  watch(wakeUp_.get(), true, false);
}

void Poller::watch(int fd, bool read, bool write) {
  epoll_event event{};
  event.data.fd = fd;
  event.events = (read ? EPOLLIN : 0u) | (write ? EPOLLOUT : 0u);
  if (event.events == 0) {
    // May be gone already: the number then belongs to nobody, or to a descriptor not watched yet.
    ::epoll_ctl(queue_.get(), EPOLL_CTL_DEL, fd, nullptr);
  } else if (::epoll_ctl(queue_.get(), EPOLL_CTL_MOD, fd, &event) != 0 &&
             (errno != ENOENT || ::epoll_ctl(queue_.get(), EPOLL_CTL_ADD, fd, &event) != 0)) {
    fail("epoll_ctl");
  }
}

std::span<const Poller::Ready> Poller::wait(std::chrono::milliseconds timeout) {
  std::array<epoll_event, kMaxAtOnce> events;
  const int count =
      ::epoll_wait(queue_.get(), events.data(), kMaxAtOnce, static_cast<int>(timeout.count()));
  ready_.clear();
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    if (event.data.fd == wakeUp_.get()) {
      std::uint64_t calls = 0;
      static_cast<void>(!::read(wakeUp_.get(), &calls, sizeof calls));
      continue;
    }
    const bool over = (event.events & (EPOLLHUP | EPOLLERR)) != 0;
    ready_.push_back(
        {event.data.fd, over || (event.events & EPOLLIN) != 0, (event.events & EPOLLOUT) != 0});
  }
  return ready_;
}

void Poller::wakeUp() {
  const std::uint64_t one = 1;
  // Fails only when it has been called 2^64 times since the last wait.
  static_cast<void>(!::write(wakeUp_.get(), &one, sizeof one));
}

}  // namespace verdo
