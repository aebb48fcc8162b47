#include "VerdoDriver/UI/LaneTimes.h"

#include <utility>

namespace verdo {

void LaneTimes::update(const std::vector<std::string>& lanes, Clock::TimePoint now) {
  std::map<std::string, Clock::TimePoint> starts;
  for (const auto& lane : lanes) {
    const auto known = starts_.find(lane);
    starts.emplace(lane, known == starts_.end() ? now : known->second);
  }
  starts_ = std::move(starts);
}

std::chrono::seconds LaneTimes::busyFor(const std::string& lane, Clock::TimePoint now) const {
  const auto start = starts_.find(lane);
  if (start == starts_.end()) return {};
  return std::chrono::floor<std::chrono::seconds>(now - start->second);
}

}  // namespace verdo
