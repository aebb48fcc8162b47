#include "VerdoDriverCore/Run/PollWait.h"

#include "VerdoDriverCore/System/Sync.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr double kMinPollWait = 5;  // seconds; shorter polls would be a load on the service
constexpr double kSameLimit = 1;    // seconds that two ends by one limit are apart at most
constexpr double kWayAndBack = 2;   // seconds that a poll's reply stays below the limit

}  // namespace

std::optional<std::string> PollWait::endedByProxy(Duration after) {
  const double end = toSeconds(after);
  const auto previous = std::exchange(lastEnd_, end);
  if (!previous || std::min(*previous, end) < kMinPollWait ||
      std::abs(*previous - end) > kSameLimit) {
    return std::nullopt;
  }
  const double wait = std::max(std::floor(std::min(*previous, end)) - kWayAndBack, kMinPollWait);
  if (wait >= wait_) return std::nullopt;
  wait_ = wait;
  return fmt::format(
      "a proxy on the way to the server ends long polls after {:.0f} s; polling with a wait of "
      "{:.0f} s from now on",
      end, wait);
}

}  // namespace verdo
