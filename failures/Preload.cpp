// Preloaded into a program under test (LD_PRELOAD): counts calls of the system and of its library,
// and makes the chosen one fail. What the libraries call inside themselves is not seen.

#include "failures/Calls.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

// The C library's own, which need no look-up: looking up allocates.
extern "C" {
void* __libc_malloc(size_t size);                      // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(size_t count, size_t size);        // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* memory, size_t size);       // NOLINT(bugprone-reserved-identifier)
void* __libc_memalign(size_t alignment, size_t size);  // NOLINT(bugprone-reserved-identifier)
}

namespace verdo::failures {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;  // nanoseconds

struct Orders {
  Report* report = nullptr;  ///< null: everything is left alone
  pid_t process = 0;
  Call call = Call::count;
  std::uint64_t at = 0;
  int error = 0;
  bool lasting = false;
  std::int64_t speed = 1;
  std::int64_t monotonicBase = 0;
  std::int64_t boottimeBase = 0;
  int trace = -1;  ///< who made the call that failed is written here
};

Orders orders;
std::atomic<std::int64_t> dateOffset = 0;       // nanoseconds
std::atomic<std::int64_t> monotonicOffset = 0;  // the same
// What this library calls itself is not counted. No memory is asked for a variable of this model.
thread_local bool isOurs __attribute__((tls_model("initial-exec"))) = false;

/// Gives the next definition of a function, which is the real one.
template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// Counts a call, and tells whether it shall fail.
bool strikes(Call call) {
  if (!orders.report || isOurs || ::getpid() != orders.process) return false;
  const auto number = ++orders.report->calls[static_cast<std::size_t>(call)];
  if (call != orders.call || orders.at == 0 || number < orders.at) return false;
  if (number > orders.at && !orders.lasting) return false;
  if (++orders.report->fired == 1 && orders.trace >= 0) {
    isOurs = true;
    void* frames[40];
    ::backtrace_symbols_fd(frames, ::backtrace(frames, 40), orders.trace);
    isOurs = false;
  }
  errno = orders.error;
  return true;
}

std::int64_t realTime(clockid_t clock) {
  static auto* const real = next<int(clockid_t, timespec*)>("clock_gettime");
  timespec time{};
  real(clock, &time);
  return time.tv_sec * kSecond + time.tv_nsec;
}

bool isMonotonic(clockid_t clock) { return clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME; }

/// What the clock shall show.
std::int64_t shownTime(clockid_t clock) {
  const std::int64_t time = realTime(clock);
  if (clock == CLOCK_REALTIME) return time + dateOffset;
  if (!isMonotonic(clock)) return time;
  const auto base = clock == CLOCK_MONOTONIC ? orders.monotonicBase : orders.boottimeBase;
  return base + (time - base) * orders.speed + monotonicOffset;
}

timespec asTimespec(std::int64_t time) { return {time / kSecond, time % kSecond}; }

std::string taken(const char* variable) {
  const char* value = ::getenv(variable);
  std::string text = value ? value : "";
  ::unsetenv(variable);
  return text;
}

long numberIn(const std::string& text) { return std::strtol(text.c_str(), nullptr, 10); }

__attribute__((constructor)) void begin() {
  ::unsetenv("LD_PRELOAD");
  const std::string path = taken(kReportVariable);
  orders.process = ::getpid();
  orders.call = static_cast<Call>(numberIn(taken(kCallVariable)));
  orders.at = static_cast<std::uint64_t>(numberIn(taken(kAtVariable)));
  orders.error = static_cast<int>(numberIn(taken(kErrorVariable)));
  orders.lasting = taken(kLastingVariable) == "1";
  orders.speed = std::max(1L, numberIn(taken(kSpeedVariable)));
  orders.monotonicBase = realTime(CLOCK_MONOTONIC);
  orders.boottimeBase = realTime(CLOCK_BOOTTIME);
  if (path.empty()) return;
  // Beyond the numbers that a program expects for its first descriptors.
  const auto apart = [](int fd) {
    const int high = ::fcntl(fd, F_DUPFD_CLOEXEC, 900);
    ::close(fd);
    return high;
  };
  const int file = apart(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  void* mapped = ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  if (mapped == MAP_FAILED) ::abort();
  orders.trace =
      apart(::open((path + ".trace").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  void* frame = nullptr;
  ::backtrace(&frame, 1);  // loads what it needs now, not amid a failure
  orders.report = static_cast<Report*>(mapped);
}

bool isForWriting(int flags) { return (flags & O_ACCMODE) != O_RDONLY; }

/// Which row a write to a descriptor belongs to; count: none, as for sockets and events.
Call writeOf(int fd) {
  struct stat status{};
  const int before = errno;
  const bool known = ::fstat(fd, &status) == 0;
  errno = before;
  if (!known) return Call::count;
  if (fd == STDERR_FILENO) return Call::writeLog;
  if (S_ISREG(status.st_mode)) return Call::write;
  return S_ISFIFO(status.st_mode) ? Call::writePipe : Call::count;
}

bool writeStrikes(int fd) {
  if (!orders.report) return false;
  const Call call = writeOf(fd);
  return call != Call::count && strikes(call);
}

bool readStrikes(int fd) {
  return orders.report && writeOf(fd) == Call::write && strikes(Call::read);
}

bool openStrikes(int flags) { return strikes(isForWriting(flags) ? Call::create : Call::open); }

bool lockStrikes(int command) {
  const bool locks = command == F_SETLK || command == F_SETLKW || command == F_OFD_SETLK ||
                     command == F_OFD_SETLKW;
  return locks && strikes(Call::lock);
}

}  // namespace
}  // namespace verdo::failures

using namespace verdo::failures;  // NOLINT(google-build-using-namespace): it is this file's all

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name,cert-dcl50-cpp): the C library's
extern "C" {

// -- Processes, threads, events ------------------------------------------------------------------

int pipe(int ends[2]) noexcept {
  static auto* const real = next<int(int*)>("pipe");
  return strikes(Call::pipe) ? -1 : real(ends);
}

int pipe2(int ends[2], int flags) noexcept {
  static auto* const real = next<int(int*, int)>("pipe2");
  return strikes(Call::pipe) ? -1 : real(ends, flags);
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const argv[], char* const env[]) {
  static auto* const real = next<decltype(::posix_spawn)>("posix_spawn");
  if (strikes(Call::spawn)) return orders.error;
  return real(pid, path, actions, attributes, argv, env);
}

int posix_spawnp(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const argv[], char* const env[]) {
  static auto* const real = next<decltype(::posix_spawnp)>("posix_spawnp");
  if (strikes(Call::spawn)) return orders.error;
  return real(pid, path, actions, attributes, argv, env);
}

pid_t fork() noexcept {
  static auto* const real = next<pid_t()>("fork");
  return strikes(Call::spawn) ? -1 : real();
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) noexcept {
  static auto* const real =
      next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  return strikes(Call::thread) ? orders.error : real(thread, attributes, run, argument);
}

int epoll_create1(int flags) noexcept {
  static auto* const real = next<int(int)>("epoll_create1");
  return strikes(Call::epoll) ? -1 : real(flags);
}

int epoll_ctl(int queue, int operation, int fd, epoll_event* event) noexcept {
  static auto* const real = next<int(int, int, int, epoll_event*)>("epoll_ctl");
  return strikes(Call::epoll) ? -1 : real(queue, operation, fd, event);
}

int eventfd(unsigned int value, int flags) noexcept {
  static auto* const real = next<int(unsigned int, int)>("eventfd");
  return strikes(Call::epoll) ? -1 : real(value, flags);
}

int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  static auto* const real = next<decltype(::waitid)>("waitid");
  return strikes(Call::wait) ? -1 : real(type, id, info, options);
}

pid_t waitpid(pid_t pid, int* status, int options) {
  static auto* const real = next<decltype(::waitpid)>("waitpid");
  return strikes(Call::wait) ? -1 : real(pid, status, options);
}

// -- Files ---------------------------------------------------------------------------------------

#define VERDO_MODE(flags)                         \
  mode_t mode = 0;                                \
  if (((flags) & (O_CREAT | __O_TMPFILE)) != 0) { \
    va_list more;                                 \
    va_start(more, flags);                        \
    mode = va_arg(more, mode_t);                  \
    va_end(more);                                 \
  }

int open(const char* path, int flags, ...) {
  static auto* const real = next<decltype(::open)>("open");
  VERDO_MODE(flags)
  return openStrikes(flags) ? -1 : real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  static auto* const real = next<decltype(::open)>("open64");
  VERDO_MODE(flags)
  return openStrikes(flags) ? -1 : real(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
  static auto* const real = next<decltype(::openat)>("openat");
  VERDO_MODE(flags)
  return openStrikes(flags) ? -1 : real(directory, path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) {
  static auto* const real = next<decltype(::openat)>("openat64");
  VERDO_MODE(flags)
  return openStrikes(flags) ? -1 : real(directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
  static auto* const real = next<decltype(::fopen)>("fopen");
  return openStrikes(std::strpbrk(mode, "wa+") ? O_RDWR : O_RDONLY) ? nullptr : real(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
  static auto* const real = next<decltype(::fopen)>("fopen64");
  return openStrikes(std::strpbrk(mode, "wa+") ? O_RDWR : O_RDONLY) ? nullptr : real(path, mode);
}

ssize_t read(int fd, void* buffer, size_t size) {
  static auto* const real = next<decltype(::read)>("read");
  return readStrikes(fd) ? -1 : real(fd, buffer, size);
}

ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) {
  static auto* const real = next<ssize_t(int, void*, size_t, off64_t)>("pread64");
  return readStrikes(fd) ? -1 : real(fd, buffer, size, offset);
}

ssize_t write(int fd, const void* bytes, size_t size) {
  static auto* const real = next<decltype(::write)>("write");
  return writeStrikes(fd) ? -1 : real(fd, bytes, size);
}

ssize_t writev(int fd, const iovec* parts, int count) {
  static auto* const real = next<decltype(::writev)>("writev");
  return writeStrikes(fd) ? -1 : real(fd, parts, count);
}

ssize_t pwrite(int fd, const void* bytes, size_t size, off_t offset) {
  static auto* const real = next<decltype(::pwrite)>("pwrite");
  return writeStrikes(fd) ? -1 : real(fd, bytes, size, offset);
}

ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t offset) {
  static auto* const real = next<ssize_t(int, const void*, size_t, off64_t)>("pwrite64");
  return writeStrikes(fd) ? -1 : real(fd, bytes, size, offset);
}

int close(int fd) {
  static auto* const real = next<decltype(::close)>("close");
  const bool written =
      orders.report && writeOf(fd) == Call::write && isForWriting(::fcntl(fd, F_GETFL));
  const int result = real(fd);
  return written && strikes(Call::close) ? -1 : result;
}

int fsync(int fd) {
  static auto* const real = next<decltype(::fsync)>("fsync");
  return strikes(Call::sync) ? -1 : real(fd);
}

int fdatasync(int fd) {
  static auto* const real = next<decltype(::fdatasync)>("fdatasync");
  return strikes(Call::sync) ? -1 : real(fd);
}

int rename(const char* from, const char* to) noexcept {
  static auto* const real = next<int(const char*, const char*)>("rename");
  return strikes(Call::rename) ? -1 : real(from, to);
}

int renameat(int fromDir, const char* from, int toDir, const char* to) noexcept {
  static auto* const real = next<int(int, const char*, int, const char*)>("renameat");
  return strikes(Call::rename) ? -1 : real(fromDir, from, toDir, to);
}

int renameat2(int fromDir, const char* from, int toDir, const char* to,
              unsigned int flags) noexcept {
  static auto* const real =
      next<int(int, const char*, int, const char*, unsigned int)>("renameat2");
  return strikes(Call::rename) ? -1 : real(fromDir, from, toDir, to, flags);
}

int link(const char* from, const char* to) noexcept {
  static auto* const real = next<int(const char*, const char*)>("link");
  return strikes(Call::rename) ? -1 : real(from, to);
}

int linkat(int fromDir, const char* from, int toDir, const char* to, int flags) noexcept {
  static auto* const real = next<int(int, const char*, int, const char*, int)>("linkat");
  return strikes(Call::rename) ? -1 : real(fromDir, from, toDir, to, flags);
}

int mkdir(const char* path, mode_t mode) noexcept {
  static auto* const real = next<int(const char*, mode_t)>("mkdir");
  return strikes(Call::makeDir) ? -1 : real(path, mode);
}

int mkdirat(int directory, const char* path, mode_t mode) noexcept {
  static auto* const real = next<int(int, const char*, mode_t)>("mkdirat");
  return strikes(Call::makeDir) ? -1 : real(directory, path, mode);
}

char* mkdtemp(char* pattern) noexcept {
  static auto* const real = next<char*(char*)>("mkdtemp");
  return strikes(Call::makeDir) ? nullptr : real(pattern);
}

int ftruncate(int fd, off_t size) noexcept {
  static auto* const real = next<int(int, off_t)>("ftruncate");
  return strikes(Call::truncate) ? -1 : real(fd, size);
}

int ftruncate64(int fd, off64_t size) noexcept {
  static auto* const real = next<int(int, off64_t)>("ftruncate64");
  return strikes(Call::truncate) ? -1 : real(fd, size);
}

int flock(int fd, int operation) noexcept {
  static auto* const real = next<int(int, int)>("flock");
  return strikes(Call::lock) ? -1 : real(fd, operation);
}

int fcntl(int fd, int command, ...) {
  static auto* const real = next<decltype(::fcntl)>("fcntl");
  va_list more;
  va_start(more, command);
  void* argument = va_arg(more, void*);
  va_end(more);
  return lockStrikes(command) ? -1 : real(fd, command, argument);
}

int fcntl64(int fd, int command, ...) {
  static auto* const real = next<decltype(::fcntl)>("fcntl64");
  va_list more;
  va_start(more, command);
  void* argument = va_arg(more, void*);
  va_end(more);
  return lockStrikes(command) ? -1 : real(fd, command, argument);
}

// -- Memory --------------------------------------------------------------------------------------

void* malloc(size_t size) noexcept { return strikes(Call::memory) ? nullptr : __libc_malloc(size); }

void* calloc(size_t count, size_t size) noexcept {
  return strikes(Call::memory) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept {
  return strikes(Call::memory) ? nullptr : __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
  return strikes(Call::memory) ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
  if (strikes(Call::memory)) return ENOMEM;
  *memory = __libc_memalign(alignment, size);
  return *memory ? 0 : ENOMEM;
}

void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  static auto* const real = next<void*(void*, size_t, int, int, int, off_t)>("mmap");
  return strikes(Call::map) ? MAP_FAILED : real(address, size, protection, flags, fd, offset);
}

void* mmap64(void* address, size_t size, int protection, int flags, int fd,
             off64_t offset) noexcept {
  static auto* const real = next<void*(void*, size_t, int, int, int, off64_t)>("mmap64");
  return strikes(Call::map) ? MAP_FAILED : real(address, size, protection, flags, fd, offset);
}

// -- Network -------------------------------------------------------------------------------------

int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** found) {
  static auto* const real = next<decltype(::getaddrinfo)>("getaddrinfo");
  return strikes(Call::resolve) ? orders.error : real(node, service, hints, found);
}

int inet_pton(int family, const char* text, void* address) noexcept {
  static auto* const real = next<int(int, const char*, void*)>("inet_pton");
  if (orders.report && std::strcmp(text, kLookedUp) == 0) return 0;
  return real(family, text, address);
}

int socket(int domain, int type, int protocol) noexcept {
  static auto* const real = next<int(int, int, int)>("socket");
  return strikes(Call::socket) ? -1 : real(domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int ends[2]) noexcept {
  static auto* const real = next<int(int, int, int, int*)>("socketpair");
  return strikes(Call::socket) ? -1 : real(domain, type, protocol, ends);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  static auto* const real = next<decltype(::connect)>("connect");
  return strikes(Call::connect) ? -1 : real(fd, address, size);
}

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  static auto* const real = next<decltype(::send)>("send");
  return strikes(Call::transfer) ? -1 : real(fd, bytes, size, flags);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
  static auto* const real = next<decltype(::recv)>("recv");
  return strikes(Call::transfer) ? -1 : real(fd, buffer, size, flags);
}

ssize_t sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* address,
               socklen_t length) {
  static auto* const real = next<decltype(::sendto)>("sendto");
  return strikes(Call::transfer) ? -1 : real(fd, bytes, size, flags, address, length);
}

ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* address,
                 socklen_t* length) {
  static auto* const real = next<decltype(::recvfrom)>("recvfrom");
  return strikes(Call::transfer) ? -1 : real(fd, buffer, size, flags, address, length);
}

// -- Time ----------------------------------------------------------------------------------------

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  // A step is for good, whatever else is asked for.
  if (strikes(Call::clock)) dateOffset = orders.error * kSecond;
  if (strikes(Call::monotonic)) monotonicOffset = orders.error * kSecond;
  *time = asTimespec(shownTime(clock));
  return 0;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
  static auto* const real =
      next<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>(
          "pthread_cond_clockwait");
  if (!isMonotonic(clock)) return real(condition, mutex, clock, deadline);
  const auto left = deadline->tv_sec * kSecond + deadline->tv_nsec - shownTime(clock);
  const timespec until =
      asTimespec(realTime(clock) + std::max<std::int64_t>(left / orders.speed, 0));
  return real(condition, mutex, clock, &until);
}

int nanosleep(const timespec* duration, timespec* left) {
  static auto* const real = next<decltype(::nanosleep)>("nanosleep");
  const timespec shorter =
      asTimespec((duration->tv_sec * kSecond + duration->tv_nsec) / orders.speed);
  return real(&shorter, left);
}

int poll(pollfd* polled, nfds_t count, int timeout) {
  static auto* const real = next<decltype(::poll)>("poll");
  const auto speed = static_cast<int>(orders.speed);
  return real(polled, count, timeout < 0 ? timeout : (timeout + speed - 1) / speed);
}

int epoll_wait(int queue, epoll_event* events, int count, int timeout) {
  static auto* const real = next<decltype(::epoll_wait)>("epoll_wait");
  if (strikes(Call::epollWait)) return -1;
  const auto speed = static_cast<int>(orders.speed);
  return real(queue, events, count,
              timeout < 0 ? timeout : timeout / speed + (timeout % speed != 0));
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name,cert-dcl50-cpp)
