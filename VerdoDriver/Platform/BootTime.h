#pragma once

#include <chrono>

namespace verdo {

/// The time since the computer was started, with the time that it slept. No setting of the date
/// changes it. Any thread.
std::chrono::nanoseconds bootTime();

}  // namespace verdo
