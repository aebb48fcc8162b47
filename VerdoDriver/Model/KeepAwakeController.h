#pragma once

#include "VerdoDriver/Model/Clock.h"
#include "VerdoDriver/Model/KeepAwakeMode.h"
#include "VerdoDriver/Model/PowerAssertion.h"

#include <QObject>
#include <memory>

namespace verdo {

/// Keeps the computer awake while the driver runs, or only while a job does, as the user chose.
/// Lives on the main thread. Holds nothing before the first evaluate().
class KeepAwakeController : public QObject {
 public:
  KeepAwakeController(std::shared_ptr<PowerAssertion> assertion, std::shared_ptr<Clock> clock,
                      KeepAwakeMode mode);
  ~KeepAwakeController() override;

  KeepAwakeMode mode() const { return mode_; }
  /// Changes the mode and evaluates.
  void setMode(KeepAwakeMode mode);
  /// True while the driver starts or runs. Takes effect with the next evaluate().
  void setDriverRunning(bool running) { driverRunning_ = running; }
  /// True while a job runs. Takes effect with the next evaluate().
  void setBusy(bool busy) { busy_ = busy; }
  /// Holds or releases the assertion as the present state wants it. When only the jobs have ended,
  /// the release waits for a while, so that the next job finds the computer still awake. While it
  /// is wanted, the assertion is asked for again every minute: it may have been refused, by a
  /// desktop that is still starting for instance.
  void evaluate();

 private:
  void scheduleRelease();
  void cancelScheduledRelease();
  void scheduleRepeat();
  void cancelRepeat();

  const std::shared_ptr<PowerAssertion> assertion_;
  const std::shared_ptr<Clock> clock_;
  const Clock::Duration releaseDebounce_ = std::chrono::seconds(10);
  std::shared_ptr<ClockToken> releaseToken_;
  std::shared_ptr<ClockToken> repeatToken_;
  KeepAwakeMode mode_;
  bool driverRunning_ = false;
  bool busy_ = false;
};

}  // namespace verdo
