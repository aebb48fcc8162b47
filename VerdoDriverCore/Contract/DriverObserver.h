#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace verdo {

/// What a run reports to whoever shows it. Called on the driver's own threads, several at once;
/// must not throw. Runners and drivers hold it weakly.
class DriverObserver {
 public:
  virtual ~DriverObserver() = default;
  /// The service accepted the hello.
  virtual void driverConnected(const std::string& username, std::int64_t userId,
                               const std::string& serverVersion) = 0;
  /// The lanes that now run a job, sorted.
  virtual void driverBusyLanesChanged(const std::vector<std::string>& lanes) = 0;
  virtual void driverJobStarted(std::int64_t id, const std::string& lane,
                                const std::string& kind) = 0;
  virtual void driverJobFinished(std::int64_t id, const std::string& lane, std::int32_t exitCode,
                                 const std::optional<std::string>& error) = 0;
  /// The service could not be reached; the next try follows after this many seconds.
  virtual void driverRetrying(const std::string& message, double retryInSeconds) = 0;
  /// It answers again.
  virtual void driverRecovered() {}
  /// Another driver on this computer serves the same user, and looks after the task spaces; this
  /// run leaves those of others alone. `holder` names that driver for a person; empty once this run
  /// has taken over from it.
  virtual void driverSharesSpaces(const std::string& holder) { static_cast<void>(holder); }
  /// The serve loop is at work: every few seconds from the hello on, on its own thread. Silence for
  /// half a minute means that it hangs.
  virtual void driverIsAlive() {}
  /// The run takes no job any more and ends those at work. The last signs of life were before this.
  virtual void driverStopping() {}
};

}  // namespace verdo
