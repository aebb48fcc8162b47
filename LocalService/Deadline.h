#pragma once

#include <algorithm>
#include <chrono>

namespace verdo::local {

/// The end of a wait that begins now. Time-outs above a day are cut to a day, which no clock's
/// range can be hurt by.
inline std::chrono::steady_clock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
  return std::chrono::steady_clock::now() +
         std::min<std::chrono::milliseconds>(timeout, std::chrono::hours(24));
}

}  // namespace verdo::local
