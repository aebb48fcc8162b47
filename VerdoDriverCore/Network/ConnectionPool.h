#pragma once

#include "VerdoDriverCore/Network/HttpTransfer.h"
#include "VerdoDriverCore/Network/Poller.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <curl/curl.h>

namespace verdo {

/// Connections, and the transfers that go over them: one multi handle of libcurl. libcurl reuses
/// connections of the same pool only; one that must not be used again is left behind with its pool.
/// Belongs to the I/O thread of a session.
class ConnectionPool {
 public:
  using Clock = HttpRequest::Clock;
  /// A transfer whose socket the system's queue refuses to watch, and why.
  struct Unwatched {
    std::int64_t identifier = 0;
    std::string reason;
  };

  /// `poller` must outlive the pool. Throws std::runtime_error.
  explicit ConnectionPool(Poller& poller);
  /// Closes the connections. Every transfer must have been removed.
  ~ConnectionPool();
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  /// Starts a transfer, which then stays where it is until it is removed. Gives what is wrong, if
  /// anything is; the transfer is then none of the pool's.
  [[nodiscard]] std::optional<TransportError> add(HttpTransfer& transfer);
  /// Ends a transfer, finished or not.
  void remove(HttpTransfer& transfer);
  bool isIdle() const { return transfers_ == 0; }

  bool watches(int fd) const { return sockets_.contains(fd); }
  void onReady(const Poller::Ready& ready);
  /// When onTime() is due; absent: not until something else has happened.
  std::optional<Clock::time_point> due() const { return due_; }
  /// Does what is due.
  void onTime(Clock::time_point now);

  /// A transfer that libcurl has ended, and how; the caller removes it. Null: there is none.
  std::pair<HttpTransfer*, CURLcode> nextFinished();
  /// The transfers that would wait in vain; the caller removes them.
  std::vector<Unwatched> takeUnwatched() { return std::exchange(unwatched_, {}); }

 private:
  struct MultiFree {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };
  static int onSocket(CURL* handle, curl_socket_t socket, int what, void* self, void* perSocket);
  static int onTimer(CURLM* multi, long milliseconds, void* self);

  Poller& poller_;
  std::unordered_set<int> sockets_;  ///< those that libcurl wants watched
  std::optional<Clock::time_point> due_;
  std::vector<Unwatched> unwatched_;
  std::size_t transfers_ = 0;
  std::unique_ptr<CURLM, MultiFree> multi_;  ///< last: its end calls back
};

}  // namespace verdo
