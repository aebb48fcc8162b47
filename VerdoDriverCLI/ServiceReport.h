#pragma once

#include "VerdoDriverCore/Contract/DriverObserver.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace verdo::cli {

/// Keeps the service manager informed of a run: that it is ready, once the service has accepted the
/// hello; in one line what it is doing; and that its serve loop is alive.
class ServiceReport : public DriverObserver {
 public:
  using Clock = std::chrono::steady_clock;
  /// Takes assignments (ServiceManager.h). Called on the run's threads, one at a time.
  using Tell = std::function<void(const std::string&)>;

  /// `watchdog` is the longest silence that the service manager takes; absent: any. It is fed
  /// after a third of that, so less than 15 s is too short for signs of life 5 s apart.
  ServiceReport(Tell tell, std::optional<std::chrono::microseconds> watchdog);

  /// The run has ended, and why.
  void ended(const std::string& reason);

  void driverConnected(const std::string& username, std::int64_t userId,
                       const std::string& serverVersion) override EXCLUDES(lock_);
  void driverBusyLanesChanged(const std::vector<std::string>& lanes) override EXCLUDES(lock_);
  void driverJobStarted(std::int64_t, const std::string&, const std::string&) override {}
  void driverJobFinished(std::int64_t, const std::string&, std::int32_t,
                         const std::optional<std::string>&) override {}
  void driverRetrying(const std::string& message, double retryInSeconds) override EXCLUDES(lock_);
  void driverRecovered() override EXCLUDES(lock_);
  void driverIsAlive() override EXCLUDES(lock_);
  void driverStopping() override EXCLUDES(lock_);

 private:
  /// `assignment` is told before it, and ends with a line end if there is one.
  void tellState(const char* assignment = "") REQUIRES(lock_);

  const Tell tell_;
  /// Between two signs of life that are passed on; absent: none is.
  const std::optional<std::chrono::microseconds> feedInterval_;

  Mutex lock_;
  std::string user_ GUARDED_BY(lock_);
  std::vector<std::string> lanes_ GUARDED_BY(lock_);
  std::string trouble_ GUARDED_BY(lock_);  ///< empty: the service answers
  bool isStopping_ GUARDED_BY(lock_) = false;
  Clock::time_point nextFeed_ GUARDED_BY(lock_) = Clock::time_point::min();
};

}  // namespace verdo::cli
