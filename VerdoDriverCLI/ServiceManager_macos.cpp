#include "VerdoDriverCLI/ServiceManager.h"

namespace verdo::cli {

// launchd knows of a process that it runs, and wants to hear nothing.

void tellServiceManager(const std::string& /*assignments*/) {}

std::optional<std::chrono::microseconds> watchdogInterval() { return std::nullopt; }

}  // namespace verdo::cli
