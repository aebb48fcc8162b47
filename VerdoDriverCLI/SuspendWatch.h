#pragma once

#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <functional>
#include <thread>

namespace verdo::cli {

/// Notices, on a thread of its own, that the computer has slept.
class SuspendWatch {
 public:
  using Duration = std::chrono::steady_clock::duration;

  /// Looks every `interval` at `timeSuspended` (System/SuspendClock.h), and calls `onWakeUp`
  /// when it has grown by a second or more. Throws std::system_error when there is no room for a
  /// thread.
  SuspendWatch(std::function<void()> onWakeUp, Duration interval,
               const std::function<std::chrono::nanoseconds()>& timeSuspended);
  /// Waits for a call under way.
  ~SuspendWatch();
  SuspendWatch(const SuspendWatch&) = delete;
  SuspendWatch& operator=(const SuspendWatch&) = delete;

 private:
  Event ending_;
  std::thread thread_;
};

}  // namespace verdo::cli
