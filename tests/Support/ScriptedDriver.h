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

/// Makes scripted runs and remembers them; whatever still runs at the end is ended.
class ScriptedFactory : public DriverFactory {
 public:
  ~ScriptedFactory() override {
    for (const auto& run : runs) run->end(ExitReason::stopped());
  }
  std::shared_ptr<DriverHandle> makeDriver(const DriverConfig& config, std::shared_ptr<DriverLog>,
                                           std::weak_ptr<DriverObserver> observer) override {
    runs.push_back(std::make_shared<ScriptedDriver>(config, std::move(observer)));
    if (endsAtOnce) runs.back()->end(*endsAtOnce);
    return runs.back();
  }

  std::vector<std::shared_ptr<ScriptedDriver>> runs;
  std::optional<ExitReason> endsAtOnce;
};

}  // namespace verdo::test
