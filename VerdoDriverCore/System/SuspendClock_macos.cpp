#include "VerdoDriverCore/System/SuspendClock.h"

#include <time.h>

namespace verdo {

std::chrono::nanoseconds timeSuspended() {
  // This system's monotonic clock goes on during sleep; its uptime stands still.
  const auto booted = ::clock_gettime_nsec_np(CLOCK_MONOTONIC_RAW);
  const auto awake = ::clock_gettime_nsec_np(CLOCK_UPTIME_RAW);
  return std::chrono::nanoseconds(static_cast<long long>(booted) - static_cast<long long>(awake));
}

}  // namespace verdo
