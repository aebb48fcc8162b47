#pragma once

#include <chrono>

namespace verdo {

/// How long this computer has slept since it was started: what the clock that goes on meanwhile is
/// ahead of the one that stands still. Only differences matter; zero where the system cannot tell.
std::chrono::nanoseconds timeSuspended();

}  // namespace verdo
