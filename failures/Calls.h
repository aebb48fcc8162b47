#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace verdo::failures {

/// What can be made to fail. A row may stand for several calls of the system.
enum class Call {
  pipe,       ///< pipe, pipe2
  spawn,      ///< posix_spawn, posix_spawnp, fork
  thread,     ///< pthread_create
  epoll,      ///< epoll_create1, epoll_ctl, eventfd
  epollWait,  ///< epoll_wait
  open,       ///< open, openat, fopen for reading
  create,     ///< the same for writing
  read,       ///< read, pread of a file
  write,      ///< write, writev, pwrite to a file
  writePipe,  ///< the same to a pipe, but for the log's
  writeLog,   ///< the same to standard error
  close,      ///< close of a file that was open for writing: it is closed, and says that it failed
  sync,       ///< fsync, fdatasync
  rename,     ///< rename, renameat, renameat2, link, linkat
  makeDir,    ///< mkdir, mkdirat, mkdtemp
  truncate,   ///< ftruncate
  lock,       ///< flock, locks of fcntl
  map,        ///< mmap
  memory,     ///< malloc, calloc, realloc and their kin, and with them C++'s new
  resolve,    ///< getaddrinfo: its code of a failure stands in for an errno
  socket,     ///< socket, socketpair
  connect,    ///< connect
  transfer,   ///< send, recv and their kin, on sockets
  wait,       ///< waitid, waitpid
  clock,      ///< clock_gettime: from this call on the date is another
  monotonic,  ///< clock_gettime: from this call on the monotonic clocks are further
  count,
};

constexpr std::size_t kCalls = static_cast<std::size_t>(Call::count);

constexpr std::array<const char*, kCalls> kCallNames = {
    "pipe",    "posix_spawn", "pthread_create", "epoll_ctl",  "epoll_wait", "open",        "create",
    "read",    "write",       "write(pipe)",    "write(log)", "close",      "fsync",       "rename",
    "mkdir",   "ftruncate",   "flock",          "mmap",       "malloc",     "getaddrinfo", "socket",
    "connect", "send/recv",   "waitid",         "realtime",   "monotonic"};

/// What the process under test tells, in a file that both have mapped. Zero at first.
struct Report {
  std::array<std::atomic<std::uint64_t>, kCalls> calls;
  std::atomic<std::uint64_t> fired;  ///< calls made to fail
};

// The variables that tell the preloaded library what to do. It takes them, and LD_PRELOAD, out of
// the environment at once: children are left alone.
constexpr const char* kReportVariable = "VERDO_FAILURES_REPORT";    ///< path; with it all begins
constexpr const char* kCallVariable = "VERDO_FAILURES_CALL";        ///< a Call's number
constexpr const char* kAtVariable = "VERDO_FAILURES_AT";            ///< fails at this one; 0: none
constexpr const char* kErrorVariable = "VERDO_FAILURES_ERROR";      ///< errno; clocks: seconds
constexpr const char* kLastingVariable = "VERDO_FAILURES_LASTING";  ///< "1": and at all later ones
/// So many times faster the process's monotonic clocks go, and the waits that are measured in them.
constexpr const char* kSpeedVariable = "VERDO_FAILURES_SPEED";
/// Passes for a name, so that it is looked up.
constexpr const char* kLookedUp = "127.0.0.1";

}  // namespace verdo::failures
