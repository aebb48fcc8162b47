#pragma once

#include <system_error>
#include <thread>
#include <utility>

namespace verdo {

/// Runs `run` on a new thread. Throws std::system_error, whose text, unlike that of std::thread's
/// own, says what failed.
template <class Run>
std::thread startThread(Run&& run) try {
  return std::thread(std::forward<Run>(run));
} catch (const std::system_error& error) {
  throw std::system_error(error.code(), "cannot start a thread");
}

}  // namespace verdo
