#pragma once

#include "VerdoDriver/Model/Clock.h"

namespace verdo {

/// The computer's clock. Its waits count the time that the computer sleeps and ignore settings of
/// the date; those that came to their end during sleep run at catchUp(). Main thread only. With the
/// clock goes all that still waits.
class SystemClock : public Clock {
 public:
  /// Time since some fixed moment, time asleep included (bootTime() of Platform/BootTime.h).
  using Uptime = std::function<std::chrono::nanoseconds()>;

  explicit SystemClock(Uptime uptime);
  ~SystemClock() override;

  /// The date of the construction, moved on by the time that has passed since.
  TimePoint now() const override;
  std::shared_ptr<ClockToken> after(Duration delay, std::function<void()> block) override;
  /// Runs what is due. To be called whenever the computer has woken up (WakeMonitor::woke): timers
  /// stand still while it sleeps.
  void catchUp();

 private:
  class Waits;

  const Uptime uptime_;
  const TimePoint startDate_;
  const std::chrono::nanoseconds startUptime_;
  const std::shared_ptr<Waits> waits_;
};

}  // namespace verdo
