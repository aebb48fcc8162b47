#pragma once

#include "LocalService/Connection.h"
#include "LocalService/EventFd.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <memory>
#include <utility>

namespace verdo::local {

/// Where requests stand while the service hangs. Every member may be called from any thread.
class HangGate {
 public:
  void close() {
    const MutexLock lock(mutex_);
    if (!over_) over_ = std::make_shared<EventFd>();
  }
  void open() {
    const MutexLock lock(mutex_);
    if (const auto over = std::exchange(over_, nullptr)) over->set();
  }
  /// Holds the calling thread while the gate is closed. False: the client went away or the service
  /// stops.
  bool pass(const Connection& connection) const {
    while (const auto over = current()) {
      // Longer than any outage; the loop only goes round again for one that follows at once.
      const auto wake = connection.wait(std::chrono::hours(25), over->fd());
      if (wake == Connection::Wake::hungUp || wake == Connection::Wake::stopping) return false;
    }
    return true;
  }

 private:
  std::shared_ptr<EventFd> current() const {
    const MutexLock lock(mutex_);
    return over_;
  }

  mutable Mutex mutex_;
  std::shared_ptr<EventFd> over_ GUARDED_BY(mutex_);  // set while closed; up when that is over
};

}  // namespace verdo::local
