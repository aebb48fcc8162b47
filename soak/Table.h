#pragma once

#include "soak/Road.h"

#include <string>
#include <vector>

namespace verdo::soak {

/// The reports as one table, a column for each road.
std::string format(const std::vector<RoadReport>& reports);
/// Nothing is in a report that must not be.
bool isSound(const RoadReport& report);

}  // namespace verdo::soak
