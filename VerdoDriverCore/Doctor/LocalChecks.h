#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Doctor/Finding.h"
#include "VerdoDriverCore/Doctor/Remedies.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstdint>
#include <string>

namespace verdo {

// What can be checked on this computer alone.

/// A configuration that could be read: is all in it that a driver needs, and private? `envFile` is
/// where a headless driver's settings come from; empty: from elsewhere.
Finding checkConfiguration(const DriverConfig& config, const std::string& envFile,
                           const Remedies& remedies);

/// The address as it is written.
Finding checkAddress(const DriverConfig& config, const Remedies& remedies);

/// The executor is there, and tells its task spaces within the time limit. `interrupted` ends it.
Finding checkExecutor(const DriverConfig& config, Timings::Duration limit, const Timings& timings,
                      const Event& interrupted, const Remedies& remedies);

/// Job files can be kept in the directory, which is made if need be, and there is room for them:
/// with less than `minFree` bytes it fails, with less than ten times as much it warns.
Finding checkCache(const std::string& directory, std::uintmax_t minFree);

}  // namespace verdo
