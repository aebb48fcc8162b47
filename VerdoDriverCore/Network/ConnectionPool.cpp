#include "VerdoDriverCore/Network/ConnectionPool.h"

#include <exception>
#include <stdexcept>

#include <fmt/format.h>

namespace verdo {
namespace {

/// More idle connections than a driver ever has calls at once: libcurl closes connections beyond
/// this number even while it needs them.
constexpr long kConnectionCache = 4096;

}  // namespace

ConnectionPool::ConnectionPool(Poller& poller) : poller_(poller), multi_(curl_multi_init()) {
  if (!multi_) throw std::runtime_error("no memory for another network session");
  const auto set = [this](CURLMoption option, auto value) {
    const CURLMcode code = curl_multi_setopt(multi_.get(), option, value);
    if (code != CURLM_OK) {
      throw std::runtime_error(fmt::format("curl_multi_setopt {}: {}", static_cast<int>(option),
                                           curl_multi_strerror(code)));
    }
  };
  set(CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  set(CURLMOPT_MAXCONNECTS, kConnectionCache);
  set(CURLMOPT_SOCKETFUNCTION, &ConnectionPool::onSocket);
  set(CURLMOPT_SOCKETDATA, this);
  set(CURLMOPT_TIMERFUNCTION, &ConnectionPool::onTimer);
  set(CURLMOPT_TIMERDATA, this);
}

ConnectionPool::~ConnectionPool() = default;

std::optional<TransportError> ConnectionPool::add(HttpTransfer& transfer) {
  const CURLMcode code = curl_multi_add_handle(multi_.get(), transfer.handle.get());
  if (code != CURLM_OK)
    return TransportError{TransportError::Kind::other, curl_multi_strerror(code)};
  transfer.pool = this;
  ++transfers_;
  return std::nullopt;
}

void ConnectionPool::remove(HttpTransfer& transfer) {
  // Fails for a handle that is not in it, or from within a callback: neither is the case.
  curl_multi_remove_handle(multi_.get(), transfer.handle.get());
  transfer.pool = nullptr;
  --transfers_;
}

void ConnectionPool::onReady(const Poller::Ready& ready) {
  const int events =
      (ready.readable ? CURL_CSELECT_IN : 0) | (ready.writable ? CURL_CSELECT_OUT : 0);
  int active = 0;
  // What goes wrong goes wrong for a transfer, and ends it. The same below.
  curl_multi_socket_action(multi_.get(), ready.fd, events, &active);
}

void ConnectionPool::onTime(Clock::time_point now) {
  if (!due_ || *due_ > now) return;
  due_.reset();
  int active = 0;
  curl_multi_socket_action(multi_.get(), CURL_SOCKET_TIMEOUT, 0, &active);
}

std::pair<HttpTransfer*, CURLcode> ConnectionPool::nextFinished() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    return {HttpTransfer::of(message->easy_handle), message->data.result};
  }
  return {nullptr, CURLE_OK};
}

int ConnectionPool::onSocket(CURL* handle, curl_socket_t socket, int what, void* self, void*) {
  auto& pool = *static_cast<ConnectionPool*>(self);
  const bool read = what == CURL_POLL_IN || what == CURL_POLL_INOUT;
  const bool write = what == CURL_POLL_OUT || what == CURL_POLL_INOUT;
  try {
    if (read || write) {
      pool.sockets_.insert(socket);
    } else {
      pool.sockets_.erase(socket);
    }
    pool.poller_.watch(socket, read, write);
  } catch (const std::exception& error) {
    // Told as success: after a failure libcurl fails every transfer of the multi handle and keeps
    // pointers to them beyond their life. The loop ends those concerned once libcurl has returned.
    // A connection that is being closed has no transfer of ours.
    if (const HttpTransfer* transfer = HttpTransfer::of(handle)) {
      pool.unwatched_.push_back({transfer->identifier, error.what()});
    }
  }
  return 0;
}

int ConnectionPool::onTimer(CURLM*, long milliseconds, void* self) {
  auto& pool = *static_cast<ConnectionPool*>(self);
  pool.due_.reset();
  if (milliseconds >= 0) pool.due_ = Clock::now() + std::chrono::milliseconds(milliseconds);
  return 0;
}

}  // namespace verdo
