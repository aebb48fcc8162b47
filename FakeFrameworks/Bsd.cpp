// What the core uses of macOS below the frameworks: kqueue, over epoll, and calls that Linux has
// under other names.

#include "FakeFrameworks/FakeFrameworks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <sys/epoll.h>
#include <sys/event.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/sysctl.h>
#include <time.h>
#include <unistd.h>

namespace {

using namespace verdo;

/// One kqueue. Its descriptor is the epoll's, so that whoever closes it closes that.
struct Queue {
  struct Interest {
    bool reads = false;
    bool writes = false;
  };
  std::map<int, Interest> sockets;
  std::map<std::uintptr_t, int> userEvents;  ///< by name, the eventfd that stands for it
};

std::vector<fake::Process> processes;

std::mutex guard;  // of the map; each queue is changed by one thread, but for its user events
std::map<int, Queue> queues;

int change(int fd, Queue& queue, const struct kevent& event) {
  if (event.filter == EVFILT_USER) {
    const auto found = queue.userEvents.find(event.ident);
    if (event.flags & EV_ADD) {
      if (!(event.flags & EV_CLEAR)) return errno = ENOTSUP, -1;  // would be reported for ever
      const int signal = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      queue.userEvents[event.ident] = signal;
      epoll_event wanted{.events = EPOLLIN, .data = {.fd = signal}};
      return ::epoll_ctl(fd, EPOLL_CTL_ADD, signal, &wanted);
    }
    if (found == queue.userEvents.end()) return errno = ENOENT, -1;
    if (event.fflags & NOTE_TRIGGER) return ::eventfd_write(found->second, 1);
    return 0;
  }
  const int socket = static_cast<int>(event.ident);
  auto interest = queue.sockets[socket];
  bool& isWanted = event.filter == EVFILT_READ ? interest.reads : interest.writes;
  if ((event.flags & EV_DELETE) && !isWanted) return errno = ENOENT, -1;
  isWanted = event.flags & EV_ADD;
  epoll_event wanted{
      .events = (interest.reads ? EPOLLIN | EPOLLRDHUP : 0u) | (interest.writes ? EPOLLOUT : 0u),
      .data = {.fd = socket}};
  const bool isNone = !interest.reads && !interest.writes;
  // A descriptor that was closed is forgotten by epoll, as by kqueue, but not by our map.
  if (::epoll_ctl(fd, isNone ? EPOLL_CTL_DEL : EPOLL_CTL_MOD, socket, &wanted) != 0 &&
      (isNone || errno != ENOENT || ::epoll_ctl(fd, EPOLL_CTL_ADD, socket, &wanted) != 0)) {
    queue.sockets.erase(socket);
    return -1;
  }
  queue.sockets[socket] = interest;
  return 0;
}

/// As many events as the filters that have something to tell.
void report(Queue& queue, const epoll_event& ready, std::vector<struct kevent>& events) {
  const int fd = ready.data.fd;
  for (const auto& [name, signal] : queue.userEvents) {
    if (signal != fd) continue;
    eventfd_t ignored = 0;
    ::eventfd_read(signal, &ignored);
    events.push_back({name, EVFILT_USER, EV_CLEAR, 0, 0, nullptr});
    return;
  }
  const auto ident = static_cast<std::uintptr_t>(fd);
  const auto interest = queue.sockets[fd];
  const bool isOver = ready.events & (EPOLLHUP | EPOLLERR);
  const bool isReadOver = isOver || (ready.events & EPOLLRDHUP);
  if (interest.reads && (isReadOver || (ready.events & EPOLLIN))) {
    events.push_back(
        {ident, EVFILT_READ, static_cast<std::uint16_t>(isReadOver ? EV_EOF : 0), 0, 0, nullptr});
  }
  if (interest.writes && (isOver || (ready.events & EPOLLOUT))) {
    events.push_back(
        {ident, EVFILT_WRITE, static_cast<std::uint16_t>(isOver ? EV_EOF : 0), 0, 0, nullptr});
  }
}

}  // namespace

int kqueue() {
  if (const int error = fake::statusOf("kqueue")) return errno = error, -1;
  const int fd = ::epoll_create1(EPOLL_CLOEXEC);
  const std::lock_guard lock(guard);
  for (const auto& [name, signal] : queues[fd].userEvents) ::close(signal);
  queues[fd] = {};
  return fd;
}

int kevent(int fd, const struct kevent* changes, int changeCount, struct kevent* events,
           int eventCount, const timespec* timeout) {
  Queue* queue = nullptr;
  {
    const std::lock_guard lock(guard);
    queue = &queues.at(fd);
  }
  for (int i = 0; i < changeCount; ++i) {
    if (change(fd, *queue, changes[i]) != 0) return -1;
  }
  if (eventCount == 0) return 0;
  if (timeout && (timeout->tv_sec < 0 || timeout->tv_nsec < 0)) return errno = EINVAL, -1;
  std::vector<epoll_event> ready(static_cast<std::size_t>(eventCount));
  const int limit =
      timeout ? static_cast<int>(timeout->tv_sec * 1000 + (timeout->tv_nsec + 999'999) / 1'000'000)
              : -1;
  const int count = ::epoll_wait(fd, ready.data(), eventCount, limit);
  std::vector<struct kevent> due;
  for (int i = 0; i < count; ++i) report(*queue, ready[static_cast<std::size_t>(i)], due);
  // What finds no room is told the next time: it is still so.
  due.resize(std::min(due.size(), static_cast<std::size_t>(eventCount)));
  std::copy(due.begin(), due.end(), events);
  return count < 0 ? -1 : static_cast<int>(due.size());
}

void verdo::fake::setProcesses(std::vector<Process> list) { processes = std::move(list); }

int sysctl(int* name, unsigned int count, void* old, std::size_t* oldSize, void*, std::size_t) {
  if (count != 4 || name[0] != CTL_KERN || name[1] != KERN_PROC) return errno = ENOENT, -1;
  std::vector<kinfo_proc> found;
  for (const auto& process : processes) {
    if (name[3] != (name[2] == KERN_PROC_PGRP ? process.group : process.pid)) continue;
    found.push_back({{{process.startSeconds, process.startMicroseconds},
                      static_cast<char>(process.isZombie ? SZOMB : SRUN),
                      process.pid},
                     {process.group}});
  }
  const std::size_t size = found.size() * sizeof(kinfo_proc);
  if (old && *oldSize < size) return errno = ENOMEM, -1;
  if (old && size > 0) std::memcpy(old, found.data(), size);
  *oldSize = size;
  return 0;
}

int sysctlbyname(const char* name, void* old, std::size_t* oldSize, void*, std::size_t) {
  constexpr const char* kBoot = "D0D3C4CA-0000-0000-0000-000000000001";
  const std::size_t size = std::strlen(kBoot) + 1;
  if (std::string(name) != "kern.bootsessionuuid") return errno = ENOENT, -1;
  if (*oldSize < size) return errno = ENOMEM, -1;
  std::memcpy(old, kBoot, size);
  *oldSize = size;
  return 0;
}

int getpeereid(int socket, uid_t* user, gid_t* group) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return -1;
  *user = peer.uid + static_cast<uid_t>(fake::statusOf("getpeereid"));
  *group = peer.gid;
  return 0;
}

int fakeSetSocketOption(int, int level, int option, const void* value, socklen_t size) {
  const auto number = size == sizeof(int) ? *static_cast<const int*>(value) : -1;
  fake::record("setsockopt " + std::to_string(level) + " " + std::to_string(option) + " " +
               std::to_string(number));
  return fake::statusOf("setsockopt");
}

unsigned long clock_gettime_nsec_np(clockid_t clock) {
  return static_cast<unsigned long>(fake::statusOf(clock == CLOCK_UPTIME_RAW ? "CLOCK_UPTIME_RAW"
                                                   : clock == CLOCK_MONOTONIC_RAW
                                                       ? "CLOCK_MONOTONIC_RAW"
                                                       : ""));
}
