#pragma once

#include "VerdoDriver/Model/DriverFactory.h"
#include "VerdoDriverCore/System/Sync.h"

#include <atomic>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace verdo::test {

/// A run that does nothing but wait until the test ends it.
class ScriptedDriver : public DriverHandle {
 public:
  ScriptedDriver(DriverConfig driverConfig, std::weak_ptr<DriverObserver> runObserver)
      : config(std::move(driverConfig)), observer(std::move(runObserver)) {}

  ExitReason run() override {
    ended_.wait();
    return *reason_;
  }
  void stop() override { ++stops; }
  void killJobsNow() override { ++kills; }
  void networkChanged() override { ++networkChanges; }
  /// Makes run() return.
  void end(ExitReason reason) {
    if (ended_.isSet()) return;
    reason_ = std::move(reason);
    ended_.set();
  }

  const DriverConfig config;
  const std::weak_ptr<DriverObserver> observer;
  std::atomic<int> stops = 0;
  std::atomic<int> kills = 0;
  std::atomic<int> networkChanges = 0;

 private:
  std::optional<ExitReason> reason_;  // written before ended_ is set
  Event ended_;
};

/// An examination that finds what the test tells it to, and waits for its end.
class ScriptedDoctor : public DoctorHandle {
 public:
  explicit ScriptedDoctor(Doctor::Options doctorOptions) : options(std::move(doctorOptions)) {}

  void run(const Doctor::OnFinding& onFinding) override {
    while (const auto finding = next()) onFinding(*finding);
  }
  void stop() override {
    ++stops;
    if (obeys) end();
  }
  void find(Finding finding) {
    MutexLock lock(lock_);
    findings_.push_back(std::move(finding));
    changed_.notifyAll();
  }
  /// Makes run() return once it has told all.
  void end() {
    MutexLock lock(lock_);
    isOver_ = true;
    changed_.notifyAll();
  }

  const Doctor::Options options;
  std::atomic<int> stops = 0;
  std::atomic<bool> obeys = true;

 private:
  std::optional<Finding> next() {
    MutexLock lock(lock_);
    while (told_ == findings_.size() && !isOver_) changed_.wait(lock_);
    if (told_ == findings_.size()) return std::nullopt;
    return findings_[told_++];
  }

  Mutex lock_;
  Condition changed_;
  std::vector<Finding> findings_ GUARDED_BY(lock_);
  std::size_t told_ GUARDED_BY(lock_) = 0;
  bool isOver_ GUARDED_BY(lock_) = false;
};

/// Makes scripted runs and remembers them; whatever still runs at the end is ended.
class ScriptedFactory : public DriverFactory {
 public:
  ~ScriptedFactory() override {
    for (const auto& run : runs) run->end(ExitReason::stopped());
    for (const auto& doctor : doctors) doctor->end();
  }
  std::shared_ptr<DriverHandle> makeDriver(const DriverConfig& config, std::shared_ptr<DriverLog>,
                                           std::weak_ptr<DriverObserver> observer) override {
    runs.push_back(std::make_shared<ScriptedDriver>(config, std::move(observer)));
    if (endsAtOnce) runs.back()->end(*endsAtOnce);
    return runs.back();
  }

  std::shared_ptr<DoctorHandle> makeDoctor(const Doctor::Options& options) override {
    doctors.push_back(std::make_shared<ScriptedDoctor>(options));
    return doctors.back();
  }

  std::vector<std::shared_ptr<ScriptedDriver>> runs;
  std::vector<std::shared_ptr<ScriptedDoctor>> doctors;
  std::optional<ExitReason> endsAtOnce;
};

}  // namespace verdo::test
