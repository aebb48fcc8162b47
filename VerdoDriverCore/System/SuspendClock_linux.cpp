#include "VerdoDriverCore/System/SuspendClock.h"

#include <time.h>

namespace verdo {

std::chrono::nanoseconds timeSuspended() {
  timespec booted{};
  timespec awake{};
  if (::clock_gettime(CLOCK_BOOTTIME, &booted) != 0 ||
      ::clock_gettime(CLOCK_MONOTONIC, &awake) != 0) {
    return {};
  }
  return std::chrono::seconds(booted.tv_sec - awake.tv_sec) +
         std::chrono::nanoseconds(booted.tv_nsec - awake.tv_nsec);
}

}  // namespace verdo
