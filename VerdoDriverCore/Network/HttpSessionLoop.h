#pragma once

#include "VerdoDriverCore/Network/HttpTransfer.h"
#include "VerdoDriverCore/Network/Poller.h"
#include "VerdoDriverCore/System/Sync.h"

#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include <curl/curl.h>

namespace verdo {

/// The I/O thread of a session with libcurl's multi handle. libcurl says which sockets to watch and
/// when it wants to be called; a turn of the loop costs what has happened, however many transfers
/// wait (curl_multi_perform and poll(2) would look at all of them each time). Other threads hand it
/// transfers and cancellations through a mailbox; transfers themselves are touched by this thread
/// only.
class HttpSessionLoop {
 public:
  /// Throws std::runtime_error or std::system_error when there is no room for another thread.
  HttpSessionLoop();
  ~HttpSessionLoop();

  std::int64_t nextIdentifier() EXCLUDES(lock_);
  /// Takes over a transfer and starts it, or gives it back after shutDown().
  std::unique_ptr<HttpTransfer> start(std::unique_ptr<HttpTransfer> transfer) EXCLUDES(lock_);
  /// Ends a transfer that was started before; nothing for one that has ended.
  void cancel(std::int64_t identifier) EXCLUDES(lock_);
  /// Lets a paused transfer go on; nothing for one that has ended.
  void resume(std::int64_t identifier) EXCLUDES(lock_);
  /// Cancels everything and joins the thread.
  void shutDown() EXCLUDES(lock_);

 private:
  using Clock = HttpRequest::Clock;
  struct MultiFree {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };

  /// When to look at a transfer again. A look that finds that data has moved meanwhile enters the
  /// new time, so that moving data costs nothing here.
  using Looks = std::multimap<Clock::time_point, std::int64_t>;
  struct Running {
    std::unique_ptr<HttpTransfer> transfer;
    Looks::iterator look;
  };

  static int onSocket(CURL* handle, curl_socket_t socket, int what, void* self, void* perSocket);
  static int onTimer(CURLM* multi, long milliseconds, void* self);

  void run();
  bool isMailboxEmpty() const REQUIRES(lock_) {
    return starting_.empty() && cancelling_.empty() && resuming_.empty();
  }
  bool readMailbox() EXCLUDES(lock_);
  void add(std::unique_ptr<HttpTransfer> transfer);
  void goOn(std::int64_t identifier);
  void reportFinished();
  Clock::time_point expireOverdue();
  std::unique_ptr<HttpTransfer> remove(std::int64_t identifier);

  Poller poller_;
  std::unique_ptr<CURLM, MultiFree> multi_;
  std::thread thread_;

  Mutex lock_;
  std::int64_t lastIdentifier_ GUARDED_BY(lock_) = 0;
  std::vector<std::unique_ptr<HttpTransfer>> starting_ GUARDED_BY(lock_);
  std::vector<std::int64_t> cancelling_ GUARDED_BY(lock_);
  std::vector<std::int64_t> resuming_ GUARDED_BY(lock_);
  bool ending_ GUARDED_BY(lock_) = false;

  // The I/O thread's own.
  std::optional<Clock::time_point> curlTimer_;  ///< when libcurl wants to be called next
  std::unordered_map<std::int64_t, Running> running_;
  Looks looks_;
};

}  // namespace verdo
