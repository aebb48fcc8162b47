#pragma once

#include "VerdoDriver/Model/Clock.h"

#include <map>
#include <string>
#include <vector>

namespace verdo {

/// Remembers since when each lane has been busy. A plain value.
class LaneTimes {
 public:
  /// `lanes`: those that are busy at `now`. A lane that was not among them before begins now.
  void update(const std::vector<std::string>& lanes, Clock::TimePoint now);
  /// Zero for a lane that is not busy.
  std::chrono::seconds busyFor(const std::string& lane, Clock::TimePoint now) const;

 private:
  std::map<std::string, Clock::TimePoint> starts_;
};

}  // namespace verdo
