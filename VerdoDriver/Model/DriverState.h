#pragma once

#include "VerdoDriver/Model/Clock.h"
#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriverCore/Contract/ExitReason.h"

#include <string>
#include <variant>

/// What the supervisor is doing. Plain values.
namespace verdo {

/// No run, and none scheduled.
struct DriverIdle {
  bool operator==(const DriverIdle&) const = default;
};
/// A launch waits for the secret store. There is no run: nothing keeps the computer awake for it.
struct DriverWaiting {
  /// `locked`: the user has to unlock the store.
  SecretError::Kind kind = SecretError::Kind::unavailable;
  std::string reason;  ///< one sentence for the user; empty while the store has not answered at all
  bool operator==(const DriverWaiting&) const = default;
};
/// A run has been launched, or its launch waits for an abandoned one, and it has not said hello.
struct DriverStarting {
  bool operator==(const DriverStarting&) const = default;
};
/// Connected to the server.
struct DriverRunning {
  bool operator==(const DriverRunning&) const = default;
};
/// The server could not be reached; a new run is scheduled.
struct DriverBackoff {
  Clock::TimePoint until;  ///< when the next run starts
  std::string reason;      ///< why the last one failed
  bool operator==(const DriverBackoff&) const = default;
};
/// A run ended for a reason that needs the user; none is scheduled.
struct DriverStopped {
  ExitReason exit;
  bool operator==(const DriverStopped&) const = default;
};

using DriverState = std::variant<DriverIdle, DriverWaiting, DriverStarting, DriverRunning,
                                 DriverBackoff, DriverStopped>;

/// A connected run has lost the server for a while and will ask it again.
struct DriverRetry {
  std::string message;     ///< what went wrong
  Clock::TimePoint until;  ///< when it asks again
  bool operator==(const DriverRetry&) const = default;
};

/// For the log.
std::string toText(const DriverState& state);

}  // namespace verdo
