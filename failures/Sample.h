#pragma once

#include "failures/Plan.h"

#include <vector>

namespace verdo::failures {

/// What the suite tries: calls that have once found something, and some of every row.
std::vector<Attempt> driverSample();
std::vector<Attempt> appSample();

}  // namespace verdo::failures
