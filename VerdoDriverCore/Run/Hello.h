#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/Run/SpacePattern.h"
#include "VerdoDriverCore/Values/JV.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace verdo {

/// What the service says of itself and its user, and what follows from that and the configuration
/// for one run. A plain value.
struct Hello {
  // As the log shows them, "?" for what was not said.
  std::string username;
  std::string userIdText;
  std::string serverVersion;
  std::int64_t userId = 0;  ///< 0 when it was not said

  int maxJobs = 1;  ///< lanes, at least 1
  // The service's are at least one second, whatever it says.
  double idleClose = 0;       ///< seconds after which an unused task space is closed
  double reapInterval = 0;    ///< seconds between two looks for unused task spaces
  double cleanupTimeout = 0;  ///< seconds that one script of the driver's own may take
  SpacePattern spacePattern;
  /// Why the service's pattern is not used, when it is not.
  std::optional<std::string> patternDefect;

  /// Reads the service's reply; or tells why the run ends there.
  static std::variant<Hello, ExitReason> from(const JV& reply, const DriverConfig& config);
};

}  // namespace verdo
