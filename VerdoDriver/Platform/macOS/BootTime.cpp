#include "VerdoDriver/Platform/BootTime.h"

#include <time.h>

namespace verdo {

std::chrono::nanoseconds bootTime() {
  // Counts as mach_continuous_time does: on through sleep, unlike CLOCK_UPTIME_RAW.
  return std::chrono::nanoseconds(::clock_gettime_nsec_np(CLOCK_MONOTONIC_RAW));
}

}  // namespace verdo
