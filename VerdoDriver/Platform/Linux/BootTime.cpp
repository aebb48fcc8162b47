#include "VerdoDriver/Platform/BootTime.h"

#include <time.h>

namespace verdo {

std::chrono::nanoseconds bootTime() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);  // fails for unknown clocks only
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace verdo
