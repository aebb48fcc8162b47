#pragma once

#include <string>

namespace verdo {

/// Keeps the computer from falling asleep by itself. The screen may go dark, and the user may still
/// send it to sleep. Main thread only. Failures are only logged: the computer may then sleep.
class PowerAssertion {
 public:
  virtual ~PowerAssertion() = default;
  /// Nothing when it is held already; the reason of the one that is held stays. After a failure, or
  /// a loss, it tries again.
  virtual void hold(const std::string& reason) = 0;
  /// Nothing when none is held.
  virtual void release() = 0;
  virtual bool isHeld() const = 0;
};

}  // namespace verdo
