#include "VerdoDriverCLI/ServiceManager.h"

#include <systemd/sd-daemon.h>

namespace verdo::cli {

void tellServiceManager(const std::string& assignments) {
  static_cast<void>(::sd_notify(0, assignments.c_str()));
}

std::optional<std::chrono::microseconds> watchdogInterval() {
  std::uint64_t microseconds = 0;
  if (::sd_watchdog_enabled(0, &microseconds) <= 0) return std::nullopt;
  return std::chrono::microseconds(microseconds);
}

}  // namespace verdo::cli
