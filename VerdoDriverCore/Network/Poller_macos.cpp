#include "VerdoDriverCore/Network/Poller.h"

#include <array>
#include <cerrno>
#include <system_error>

#include <sys/event.h>

namespace verdo {
namespace {

constexpr int kMaxAtOnce = 256;
constexpr uintptr_t kWakeUp = 0;  // the name of the one user event

[[noreturn]] void fail(const char* call) {
  throw std::system_error(errno, std::generic_category(), call);
}

bool change(int queue, uintptr_t name, short filter, unsigned short flags,
            unsigned int details = 0) {
  struct kevent event{};
  EV_SET(&event, name, filter, flags, details, 0, nullptr);
  return ::kevent(queue, &event, 1, nullptr, 0, nullptr) == 0;
}

}  // namespace

Poller::Poller() : queue_(::kqueue()) {
  if (!queue_) fail("kqueue");
  if (!change(queue_.get(), kWakeUp, EVFILT_USER, EV_ADD | EV_CLEAR)) fail("kevent");
}

void Poller::watch(int fd, bool read, bool write) {
  const auto name = static_cast<uintptr_t>(fd);
  const auto set = [&](short filter, bool wanted) {
    const bool done = change(queue_.get(), name, filter, wanted ? EV_ADD : EV_DELETE);
    if (!done && wanted) fail("kevent");
  };
  set(EVFILT_READ, read);
  set(EVFILT_WRITE, write);
}

std::span<const Poller::Ready> Poller::wait(std::chrono::milliseconds timeout) {
  std::array<struct kevent, kMaxAtOnce> events;
  const timespec limit{static_cast<time_t>(timeout.count() / 1000),
                       static_cast<long>(timeout.count() % 1000 * 1'000'000)};
  const int count = ::kevent(queue_.get(), nullptr, 0, events.data(), kMaxAtOnce, &limit);
  ready_.clear();
  for (int i = 0; i < count; ++i) {
    const auto& event = events[static_cast<std::size_t>(i)];
    if (event.filter == EVFILT_USER) continue;
    const bool over = (event.flags & EV_EOF) != 0;
    ready_.push_back({static_cast<int>(event.ident), over || event.filter == EVFILT_READ,
                      event.filter == EVFILT_WRITE});
  }
  return ready_;
}

void Poller::wakeUp() { change(queue_.get(), kWakeUp, EVFILT_USER, 0, NOTE_TRIGGER); }

}  // namespace verdo
