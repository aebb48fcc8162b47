#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <chrono>
#include <span>
#include <vector>

namespace verdo {

/// Watches many descriptors at a cost that does not grow with their number. Used by one thread, but
/// for wakeUp().
class Poller {
 public:
  struct Ready {
    int fd = -1;
    bool readable = false;  ///< also set when the other end is gone
    bool writable = false;
  };

  /// Throws std::system_error.
  Poller();

  /// Watches `fd` for these from now on, in place of what it was watched for before; for neither:
  /// no longer. A descriptor must be taken out before it is closed.
  void watch(int fd, bool read, bool write);
  /// Blocks until something is ready, wakeUp() was called, or the time is up. Gives what is ready,
  /// valid until the next call.
  std::span<const Ready> wait(std::chrono::milliseconds timeout);
  /// Ends the current wait, or else the next one. Any thread may call it.
  void wakeUp();

 private:
  UniqueFd queue_;   ///< the system's interest list
  UniqueFd wakeUp_;  ///< what wakeUp() touches, where the system needs a descriptor for it
  std::vector<Ready> ready_;
};

}  // namespace verdo
