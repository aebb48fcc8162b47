#pragma once

#include "VerdoDriverCore/Contract/DriverObserver.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Jobs/Worker.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace verdo {

/// The one truth about a run's jobs: which run, in which lanes, and how many there were. Tells the
/// observer of every change, in the order of the changes. Any thread may call any operation.
class RunningJobs {
 public:
  using Duration = std::chrono::steady_clock::duration;

  explicit RunningJobs(std::weak_ptr<DriverObserver> observer);

  /// Takes in a job that is about to start and reports it. False when its lane is busy.
  [[nodiscard]] bool add(const std::shared_ptr<Worker>& worker) EXCLUDES(lock_);
  /// The job has ended: frees its lane and reports its end. Nothing for one that is not here.
  void remove(Worker& worker) EXCLUDES(lock_);

  /// The busy lanes, sorted.
  std::vector<std::string> lanes() const EXCLUDES(lock_);
  /// How many running jobs take a lane.
  int lanesTaken() const EXCLUDES(lock_);
  /// How many jobs were taken in since the beginning.
  int served() const EXCLUDES(lock_);
  /// No job runs, and the observer has heard of every end.
  bool isQuiet() const EXCLUDES(lock_);
  /// How long it has been quiet since the latest start or end of a job; zero while one runs.
  Duration idleFor() const EXCLUDES(lock_);
  /// What came before, a long sweep say, is no idleness.
  void beginIdling() EXCLUDES(lock_);
  /// A running job uses this task space.
  bool usesSpace(const std::string& name) const EXCLUDES(lock_);

  /// Ends all jobs: asks them to end, and SIGKILLs what is left after the grace. Blocks for that
  /// grace at most and needs no thread.
  void killAll(const TerminationTimings& grace) EXCLUDES(lock_);
  /// SIGKILL to every job's processes, without waiting.
  void killAllNow() EXCLUDES(lock_);
  /// Blocks until the jobs that run now have cleaned up and the observer has heard of it, for
  /// `timeout` at most.
  void waitForAll(Duration timeout) EXCLUDES(lock_);

 private:
  using Clock = std::chrono::steady_clock;
  using Report = std::function<void(DriverObserver&)>;

  std::vector<std::shared_ptr<Worker>> workers() const EXCLUDES(lock_);
  void queueLanes() REQUIRES(lock_);
  void deliverReports() EXCLUDES(lock_);

  const std::weak_ptr<DriverObserver> observer_;

  mutable Mutex lock_;
  std::map<std::string, std::shared_ptr<Worker>> workers_ GUARDED_BY(lock_);  ///< by lane
  /// The lanes once more, side by side: every poll names them, a thousand at times.
  std::vector<std::string> lanes_ GUARDED_BY(lock_);
  int lanesTaken_ GUARDED_BY(lock_) = 0;
  int served_ GUARDED_BY(lock_) = 0;
  Clock::time_point lastActivity_ GUARDED_BY(lock_) = Clock::now();

  /// What the observer has yet to hear. One thread at a time delivers, so that none overtakes
  /// another and no lock is held meanwhile.
  std::deque<Report> reports_ GUARDED_BY(lock_);
  bool delivering_ GUARDED_BY(lock_) = false;
  Condition delivered_;
};

}  // namespace verdo
