#include "VerdoDriverCore/Run/RunningJobs.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace verdo {

RunningJobs::RunningJobs(std::weak_ptr<DriverObserver> observer) : observer_(std::move(observer)) {}

bool RunningJobs::add(const std::shared_ptr<Worker>& worker) {
  const Job& job = worker->job();
  {
    MutexLock lock(lock_);
    if (!workers_.emplace(job.lane, worker).second) return false;
    lanes_.insert(std::lower_bound(lanes_.begin(), lanes_.end(), job.lane), job.lane);
    if (worker->takesLane()) ++lanesTaken_;
    ++served_;
    lastActivity_ = Clock::now();
    reports_.emplace_back(
        [id = job.id, lane = job.lane, kind = job.kind](DriverObserver& observer) {
          observer.driverJobStarted(id, lane, kind);
        });
    queueLanes();
  }
  deliverReports();
  return true;
}

void RunningJobs::remove(Worker& worker) {
  const Job& job = worker.job();
  {
    MutexLock lock(lock_);
    const auto entry = workers_.find(job.lane);
    if (entry == workers_.end() || entry->second.get() != &worker) return;
    if (worker.takesLane()) --lanesTaken_;
    lanes_.erase(std::lower_bound(lanes_.begin(), lanes_.end(), job.lane));
    workers_.erase(entry);
    lastActivity_ = Clock::now();
    reports_.emplace_back([id = job.id, lane = job.lane, exitCode = worker.exitCode().value_or(0),
                           error = worker.error()](DriverObserver& observer) {
      observer.driverJobFinished(id, lane, exitCode, error);
    });
    queueLanes();
  }
  deliverReports();
}

void RunningJobs::queueLanes() {
  reports_.emplace_back(
      [lanes = lanes_](DriverObserver& observer) { observer.driverBusyLanesChanged(lanes); });
}

void RunningJobs::deliverReports() {
  const auto observer = observer_.lock();
  for (;;) {
    Report report;
    {
      MutexLock lock(lock_);
      if (delivering_) return;  // whoever is at it finds ours, too
      if (reports_.empty()) return;
      report = std::move(reports_.front());
      reports_.pop_front();
      delivering_ = true;
    }
    if (observer) report(*observer);
    MutexLock lock(lock_);
    delivering_ = false;
    delivered_.notifyAll();
  }
}

std::vector<std::string> RunningJobs::lanes() const {
  MutexLock lock(lock_);
  return lanes_;
}

int RunningJobs::lanesTaken() const {
  MutexLock lock(lock_);
  return lanesTaken_;
}

int RunningJobs::served() const {
  MutexLock lock(lock_);
  return served_;
}

bool RunningJobs::isQuiet() const {
  MutexLock lock(lock_);
  return workers_.empty() && reports_.empty() && !delivering_;
}

RunningJobs::Duration RunningJobs::idleFor() const {
  if (!isQuiet()) return Duration::zero();
  MutexLock lock(lock_);
  return Clock::now() - lastActivity_;
}

void RunningJobs::beginIdling() {
  MutexLock lock(lock_);
  lastActivity_ = Clock::now();
}

std::vector<std::shared_ptr<Worker>> RunningJobs::workers() const {
  MutexLock lock(lock_);
  std::vector<std::shared_ptr<Worker>> all;
  all.reserve(workers_.size());
  for (const auto& [lane, worker] : workers_) all.push_back(worker);
  return all;
}

bool RunningJobs::usesSpace(const std::string& name) const {
  MutexLock lock(lock_);
  return std::any_of(workers_.begin(), workers_.end(),
                     [&](const auto& entry) { return entry.second->job().taskSpace == name; });
}

void RunningJobs::killAll(const TerminationTimings& grace) {
  const auto doomed = workers();
  const auto hasProcess = [](const auto& worker) { return worker->hasProcess(); };
  for (const auto& worker : doomed) worker->terminate();
  for (int step = 0; step < grace.steps; ++step) {
    if (std::none_of(doomed.begin(), doomed.end(), hasProcess)) return;
    std::this_thread::sleep_for(grace.step);
  }
  for (const auto& worker : doomed) {
    if (worker->hasProcess()) worker->killNow();
  }
}

void RunningJobs::killAllNow() {
  for (const auto& worker : workers()) worker->killNow();
}

void RunningJobs::waitForAll(Duration timeout) {
  const auto deadline = Clock::now() + timeout;
  for (const auto& worker : workers()) worker->tornDown().waitFor(deadline - Clock::now());
  MutexLock lock(lock_);
  while ((delivering_ || !reports_.empty()) && delivered_.waitUntil(lock_, deadline)) {
  }
}

}  // namespace verdo
