#include "LocalService/Connection.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

namespace verdo::local {
namespace {

constexpr std::size_t kInputSize = 1 << 16;
constexpr std::size_t kOutputSize = 1 << 16;
constexpr std::size_t kMaxKeptHead = 1 << 18;
constexpr std::int64_t kMaxPoll = 3'600'000;  // ms
/// Patience with a peer that neither takes nor gives a byte. Far above what any slow client of a
/// test needs; it only keeps a forgotten one from holding a thread for ever.
constexpr timeval kStallLimit{.tv_sec = 120, .tv_usec = 0};

/// poll(2) that goes on after a signal. Gives false on a time-out.
bool pollUntil(pollfd* fds, nfds_t count, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    // poll(2) counts milliseconds in an int; longer waits are made of several.
    const int n =
        ::poll(fds, count, static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, kMaxPoll)));
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return true;  // the caller's next operation meets the error itself
    if (left.count() <= 0) return false;
  }
}

}  // namespace

Connection::Connection(UniqueFd socket, SSL_CTX* tls, const EventFd& stopEvent,
                       std::uint64_t number, std::uint16_t peerPort)
    : socket_(std::move(socket)),
      stopEvent_(stopEvent),
      number_(number),
      peerPort_(peerPort),
      input_(kInputSize) {
  const int on = 1;
  ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &kStallLimit, sizeof kStallLimit);
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &kStallLimit, sizeof kStallLimit);
  if (tls != nullptr) {
    ssl_.reset(SSL_new(tls));
    if (!ssl_ || SSL_set_fd(ssl_.get(), socket_.get()) != 1) failed_ = true;
  }
}

Connection::~Connection() {
  if (aborted_) {
    const linger immediately{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
    return;
  }
  if (ssl_ && !failed_ && SSL_is_init_finished(ssl_.get())) SSL_shutdown(ssl_.get());
  ::shutdown(socket_.get(), SHUT_WR);
  // Unread bytes would turn the close into a reset, and the reset could overtake the reply.
  std::array<char, 4096> rest;
  while (::recv(socket_.get(), rest.data(), rest.size(), MSG_DONTWAIT) > 0) {
  }
}

bool Connection::handshake() {
  if (failed_) return false;
  if (ssl_ && SSL_accept(ssl_.get()) != 1) failed_ = true;
  return !failed_;
}

bool Connection::waitForRequest(std::chrono::milliseconds idleTimeout) {
  if (failed_ || ending_) return false;
  if (is_readable()) return true;
  std::array<pollfd, 2> fds{{{socket_.get(), POLLIN, 0}, {stopEvent_.fd(), POLLIN, 0}}};
  return pollUntil(fds.data(), fds.size(), idleTimeout) && fds[1].revents == 0;
}

void Connection::beginRequest() {
  head_.clear();
  headComplete_ = false;
  takenOver_ = false;
}

bool Connection::hungUp() const {
  if (failed_) return true;
  pollfd fd{socket_.get(), POLLRDHUP, 0};
  return ::poll(&fd, 1, 0) > 0 && (fd.revents & (POLLRDHUP | POLLERR | POLLHUP)) != 0;
}

Connection::Wake Connection::wait(std::chrono::milliseconds timeout, int fd) const {
  std::array<pollfd, 3> fds{
      {{stopEvent_.fd(), POLLIN, 0}, {socket_.get(), POLLRDHUP, 0}, {fd, POLLIN, 0}}};
  if (!pollUntil(fds.data(), fds.size(), timeout)) return Wake::timeout;
  if (fds[0].revents != 0) return Wake::stopping;
  if (fds[1].revents != 0) return Wake::hungUp;
  return fds[2].revents != 0 ? Wake::signalled : Wake::timeout;
}

bool Connection::send(std::string_view bytes) {
  while (!bytes.empty() && !failed_) {
    ssize_t sent = 0;
    if (ssl_) {
      const auto chunk = static_cast<int>(std::min<std::size_t>(bytes.size(), 1 << 20));
      sent = SSL_write(ssl_.get(), bytes.data(), chunk);
    } else {
      sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
    }
    if (sent <= 0) {
      failed_ = true;
    } else {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  return !failed_;
}

bool Connection::flush() {
  const bool sent = output_.empty() ? !failed_ : send(output_);
  output_.clear();
  return sent;
}

void Connection::abort() {
  aborted_ = true;
  takeOverAndEnd();
}

void Connection::drop() { ::shutdown(socket_.get(), SHUT_RDWR); }

bool Connection::is_readable() const {
  return inputBegin_ < inputEnd_ || (ssl_ && SSL_pending(ssl_.get()) > 0);
}

ssize_t Connection::receive(char* buffer, std::size_t size) {
  while (true) {
    if (ssl_) return SSL_read(ssl_.get(), buffer, static_cast<int>(size));
    const auto got = ::recv(socket_.get(), buffer, size, 0);
    if (got >= 0 || errno != EINTR) return got;
  }
}

ssize_t Connection::read(char* buffer, size_t size) {
  if (inputBegin_ == inputEnd_) {
    // A client that waits for "100 Continue" sends nothing more before it has it.
    if (!output_.empty() && !flush()) return -1;
    const auto got = receive(input_.data(), input_.size());
    if (got <= 0) {
      failed_ = true;
      return got;
    }
    inputBegin_ = 0;
    inputEnd_ = static_cast<std::size_t>(got);
  }
  const auto n = std::min(size, inputEnd_ - inputBegin_);
  std::memcpy(buffer, input_.data() + inputBegin_, n);
  inputBegin_ += n;
  // httplib reads the head byte by byte, so the head ends exactly with a read.
  if (!headComplete_ && head_.size() < kMaxKeptHead) {
    head_.append(buffer, n);
    headComplete_ = head_.ends_with("\r\n\r\n");
  }
  return static_cast<ssize_t>(n);
}

ssize_t Connection::write(const char* bytes, size_t size) {
  if (takenOver_) return static_cast<ssize_t>(size);
  output_.append(bytes, size);
  if (output_.size() >= kOutputSize && !flush()) return -1;
  return static_cast<ssize_t>(size);
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
  ip = "127.0.0.1";
  port = peerPort_;
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
  ip = "127.0.0.1";
  port = 0;
}

}  // namespace verdo::local
