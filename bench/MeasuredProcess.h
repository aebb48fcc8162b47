#pragma once

#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Process/Spawn.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace verdo::bench {

/// What the system counted for a process so far.
struct Usage {
  double cpu = 0;              ///< user and system time of the process itself, seconds
  double rss = 0;              ///< resident now, MB (10^6 bytes)
  double peakRss = 0;          ///< the highest resident size, MB
  double anonymous = 0;        ///< of `rss` what is the process's own, not a file's, MB
  std::uint64_t switches = 0;  ///< context switches of all threads: one for each wake-up
  /// Those of each thread by its id; the main thread's is the process's.
  std::map<pid_t, std::uint64_t> threadSwitches;
};

/// A running program whose output is read and dropped.
class MeasuredProcess {
 public:
  using Clock = std::chrono::steady_clock;

  /// Starts it with arguments and additional environment entries.
  MeasuredProcess(const std::string& program, std::vector<std::string> arguments,
                  const Environment& additional = {});
  ~MeasuredProcess();
  MeasuredProcess(const MeasuredProcess&) = delete;
  MeasuredProcess& operator=(const MeasuredProcess&) = delete;

  Clock::time_point startedAt() const { return startedAt_; }
  pid_t pid() const { return child_->pid(); }
  Usage usage() const;
  /// Gives it a line on its standard input.
  void send(const std::string& line);
  /// Waits until it has ended by itself; gives the seconds since its start.
  double waitForEnd();
  /// SIGTERM; gives the seconds until it has ended.
  double stop();

 private:
  Clock::time_point startedAt_;
  std::unique_ptr<ChildProcess> child_;
  UniqueFd in_;
  std::unique_ptr<LineReader> out_;
};

/// Seconds between two points in time.
double secondsBetween(std::chrono::steady_clock::time_point from,
                      std::chrono::steady_clock::time_point to);

/// What has come of a process over a time in which it has nothing to do.
struct Idle {
  double rss = 0;      ///< MB
  double cpu = 0;      ///< seconds
  double wakeups = 0;  ///< per second
};
Idle measureIdle(const MeasuredProcess& process, std::chrono::seconds time);

}  // namespace verdo::bench
