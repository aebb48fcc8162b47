#pragma once

#include "VerdoDriverCore/Contract/DriverObserver.h"
#include "VerdoDriverCore/Jobs/JobHost.h"
#include "VerdoDriverCore/Jobs/Worker.h"
#include "VerdoDriverCore/Run/SpacePattern.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace verdo {

/// One run's serving: polls for jobs while lanes are free, gives each to a worker, closes idle
/// task spaces, and shuts everything down in the end.
class Driver : public JobHost, public std::enable_shared_from_this<Driver> {
 public:
  using Duration = std::chrono::steady_clock::duration;

  struct Options {
    int maxJobs = 1;          ///< lanes, at least 1
    double pollWait = 25.0;   ///< long-poll wait, seconds
    std::string llmKey;       ///< empty: none
    std::string llmBase;      ///< provider base URL
    Duration idleClose{};     ///< a task space idle for longer is closed
    Duration reapInterval{};  ///< between two looks at the task spaces
    SpacePattern spacePattern;
    Timings timings;
  };

  Driver(Options options, std::shared_ptr<Api> api, std::shared_ptr<LogSink> log,
         std::shared_ptr<Browser> browser, std::weak_ptr<DriverObserver> observer);

  /// Serves until told to stop, until `serveJobs` jobs were served or nothing came for `idleExit`
  /// (absent or zero: no limit). Blocks. Gives 0 at the end of its own accord, 3 for a revoked
  /// token, 6 for a driver out of date, 130 when stopped.
  std::int32_t serve(std::optional<int> serveJobs, std::optional<Duration> idleExit);
  /// Makes serve() return soon. Any thread may call it.
  void stop();
  /// SIGKILL to every job's processes, without waiting. Any thread may call it.
  void killJobsNow() EXCLUDES(guardLock_);

  /// Closes the task spaces that no running job uses: this driver's own, or all of them. Gives
  /// their names.
  std::vector<std::string> sweepSpaces(bool everything) EXCLUDES(guardLock_);
  /// Closes this driver's task spaces that nobody has used for idleClose.
  void reapIdle() EXCLUDES(guardLock_);

  // JobHost
  Api& api() override { return *api_; }
  LogSink& log() override { return *log_; }
  Browser& browser() override { return *browser_; }
  const Timings& timings() const override { return options_.timings; }
  const std::string& llmKey() const override { return options_.llmKey; }
  const std::string& llmBase() const override { return options_.llmBase; }
  std::shared_ptr<HttpSession> providerSession() override EXCLUDES(guardLock_);
  const Event& stopping() const override { return stopping_; }
  void tokenWasRevoked() override;
  void touchSpace(const std::string& name) override EXCLUDES(guardLock_);
  void workerDone(Worker& worker) override EXCLUDES(guardLock_);

 private:
  using Clock = std::chrono::steady_clock;
  using Workers = std::map<std::string, std::shared_ptr<Worker>>;
  enum class PollOutcome { served, empty, ended };

  bool hasServed(std::optional<int> jobs) EXCLUDES(guardLock_);
  /// No job runs, and the observer has heard of every end.
  bool isQuiet() EXCLUDES(guardLock_);
  bool isIdleFor(std::optional<Duration> limit) EXCLUDES(guardLock_);
  bool hasFreeLane() EXCLUDES(guardLock_);
  PollOutcome pollOnce(Duration& retryDelay);
  bool waitAfterFailure(const std::exception& failure, Duration& retryDelay);
  bool accept(JsonReading reply);
  void startWorker(Job job) EXCLUDES(guardLock_);
  std::int32_t shutdown() EXCLUDES(guardLock_);
  void startReaper();
  std::vector<std::string> busyLanes() EXCLUDES(guardLock_);
  bool isBusy(const std::string& lane) EXCLUDES(guardLock_);
  std::set<std::string> ownedSpaces() EXCLUDES(guardLock_);
  Workers workersNow() EXCLUDES(guardLock_);
  void reportBusyLanes() EXCLUDES(guardLock_);

  const Options options_;
  const std::shared_ptr<Api> api_;
  const std::shared_ptr<LogSink> log_;
  const std::shared_ptr<Browser> browser_;
  const std::weak_ptr<DriverObserver> observer_;

  Event slotFree_;
  Event stopping_;
  Event tokenRevoked_;
  Event outOfDate_;
  Event reaperEnded_;

  Mutex guardLock_;
  Workers workers_ GUARDED_BY(guardLock_);
  /// The lanes of the workers, sorted and side by side: every poll names them, a thousand at times.
  std::vector<std::string> busyLanes_ GUARDED_BY(guardLock_);
  std::map<std::string, Clock::time_point> spaceSeen_ GUARDED_BY(guardLock_);
  std::shared_ptr<HttpSession> providerSession_ GUARDED_BY(guardLock_);
  int lanesTaken_ GUARDED_BY(guardLock_) = 0;
  int served_ GUARDED_BY(guardLock_) = 0;
  int endsBeingReported_ GUARDED_BY(guardLock_) = 0;  ///< workers gone whose end is being told
  Clock::time_point lastActivity_ GUARDED_BY(guardLock_) = Clock::now();
};

}  // namespace verdo
