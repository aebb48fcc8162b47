#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace verdo::cli {

/// The service manager that has started this process, if one has. What it wants to hear is in the
/// environment, which must not change while one of these functions runs. Any thread.

/// Tells it something: assignments such as "READY=1", a line each. Nothing when there is none, or
/// when it makes no room for them within a second: no run depends on being watched.
void tellServiceManager(const std::string& assignments);

/// How often it wants to hear "WATCHDOG=1" at least; absent: it does not care.
std::optional<std::chrono::microseconds> watchdogInterval();

}  // namespace verdo::cli
