#pragma once

#include "VerdoDriver/Model/DriverState.h"

namespace verdo::test {

/// The alternatives of DriverState, for tables.
enum class Kind { idle, waiting, starting, running, backoff, stopped };

inline Kind kindOf(const DriverState& state) { return static_cast<Kind>(state.index()); }

}  // namespace verdo::test
