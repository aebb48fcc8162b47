#pragma once

#include "VerdoDriverCore/Network/ConnectionPool.h"
#include "VerdoDriverCore/Network/HttpTransfer.h"
#include "VerdoDriverCore/Network/Poller.h"
#include "VerdoDriverCore/System/Sync.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace verdo {

/// The I/O thread of a session. libcurl says which sockets to watch and when it wants to be called;
/// a turn of the loop costs what has happened, however many transfers wait (curl_multi_perform and
/// poll(2) would look at all of them each time). Other threads hand it transfers, cancellations and
/// changes of the network through a mailbox; transfers themselves are touched by this thread only.
class HttpSessionLoop {
 public:
  /// Throws std::runtime_error or std::system_error when there is no room for another thread.
  explicit HttpSessionLoop(HttpSession::Options options);
  ~HttpSessionLoop();

  const HttpSession::Options& options() const { return options_; }
  std::int64_t nextIdentifier() EXCLUDES(lock_);
  /// Takes over a transfer and starts it, or gives it back after shutDown().
  std::unique_ptr<HttpTransfer> start(std::unique_ptr<HttpTransfer> transfer) EXCLUDES(lock_);
  /// Ends a transfer that was started before; nothing for one that has ended.
  void cancel(std::int64_t identifier) EXCLUDES(lock_);
  /// Lets a paused transfer go on; nothing for one that has ended.
  void resume(std::int64_t identifier) EXCLUDES(lock_);
  /// As HttpSession::dropConnections().
  void dropConnections() EXCLUDES(lock_);
  /// How many turns the loop has made, one more of which this brings about: a count that stays the
  /// same for seconds shows a thread that hangs.
  std::uint64_t nextTurn();
  /// Cancels everything and joins the thread.
  void shutDown() EXCLUDES(lock_);

 private:
  using Clock = HttpRequest::Clock;

  /// When to look at a transfer again. A look that finds that data has moved meanwhile enters the
  /// new time, so that moving data costs nothing here.
  using Expiries = std::multimap<Clock::time_point, std::int64_t>;
  struct Running {
    std::unique_ptr<HttpTransfer> transfer;
    Expiries::iterator expiry;
  };
  struct Mail {
    std::vector<std::unique_ptr<HttpTransfer>> starting;
    std::vector<std::int64_t> cancelling;
    std::vector<std::int64_t> resuming;
    bool drop = false;
    bool isEmpty() const {
      return starting.empty() && cancelling.empty() && resuming.empty() && !drop;
    }
  };

  void run();
  bool readMailbox() EXCLUDES(lock_);
  void add(std::unique_ptr<HttpTransfer> transfer, ConnectionPool& pool);
  void goOn(std::int64_t identifier);
  std::chrono::milliseconds untilNextLook() const;
  void dispatch(const Poller::Ready& ready);
  void reportFinished();
  void failUnwatched();
  void expireOverdue();
  void timeOut(std::int64_t identifier);
  void dropIfDue();
  ConnectionPool& poolFor(const HttpTransfer& transfer);
  bool isInUse(const ConnectionPool& pool) const;
  void leavePools();
  void removeIdlePools();
  void ping(ConnectionPool& pool, HttpTransfer::Connection connection, const std::string& url);
  bool hasMovedSince(Clock::time_point time, const std::vector<std::int64_t>& transfers) const;
  std::vector<std::int64_t> transfersOn(const ConnectionPool& pool,
                                        HttpTransfer::Connection connection) const;
  std::unique_ptr<HttpTransfer> remove(std::int64_t identifier);

  const HttpSession::Options options_;
  Poller poller_;
  std::thread thread_;

  std::atomic<std::uint64_t> turns_ = 0;

  Mutex lock_;
  std::int64_t lastIdentifier_ GUARDED_BY(lock_) = 0;
  Mail mail_ GUARDED_BY(lock_);
  bool ending_ GUARDED_BY(lock_) = false;

  // The I/O thread's own.
  /// New transfers go to the two below; the others only live until theirs have ended.
  std::vector<std::unique_ptr<ConnectionPool>> pools_;
  /// Downloads, which keep to HTTP/1.1, and all else apart: where a pool has HTTP/2 connections to
  /// a host, libcurl 7.88 gives a request that looks for another one a busy HTTP/1.1 connection as
  /// well.
  ConnectionPool* downloads_ = nullptr;
  ConnectionPool* calls_ = nullptr;
  std::unordered_map<std::int64_t, Running> running_;
  Expiries expiries_;
  std::optional<Clock::time_point> dropDue_;
  Clock::time_point nextDrop_;  ///< not before
};

}  // namespace verdo
