#include "VerdoDriver/Model/DriverState.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace verdo {
namespace {

std::string textOf(const DriverIdle&) { return "idle"; }
std::string textOf(const DriverWaiting& state) {
  return state.reason.empty() ? "waiting for the keyring"
                              : fmt::format("waiting for the keyring: {}", state.reason);
}
std::string textOf(const DriverStarting&) { return "starting"; }
std::string textOf(const DriverRunning&) { return "running"; }
std::string textOf(const DriverBackoff& state) {
  return fmt::format("backoff(until: {:%H:%M:%S}, reason: {})",
                     fmt::localtime(Clock::TimePoint::clock::to_time_t(state.until)), state.reason);
}
std::string textOf(const DriverStopped& state) {
  const auto& [exit] = state;
  return fmt::format("stopped(exit {}{}{})", exit.code(), exit.message().empty() ? "" : ": ",
                     exit.message());
}

}  // namespace

std::string toText(const DriverState& state) {
  return std::visit([](const auto& one) { return textOf(one); }, state);
}

}  // namespace verdo
