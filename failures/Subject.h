#pragma once

#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/System/Sync.h"
#include "failures/Calls.h"
#include "failures/Plan.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace verdo::failures {

/// What a program under test tells of its calls: a file beside its home directory.
class Telling {
 public:
  explicit Telling(std::string path);
  ~Telling();
  Telling(const Telling&) = delete;
  Telling& operator=(const Telling&) = delete;

  const Report& report() const { return *report_; }
  std::string trace() const;
  /// The variables that make a program tell, and one of its calls fail. Speed: of its clocks.
  Environment orders(const std::optional<Attempt>& attempt, int speed) const;

 private:
  const std::string path_;
  Report* report_;
};

/// A program under test, as a child process. Killed at the end of this object's life.
class Subject {
 public:
  Subject(const std::vector<std::string>& argv, const Environment& environment);
  ~Subject();

  pid_t pid() const { return child_->pid(); }
  void signal(int number) const { child_->signalGroup(number); }
  bool hasEnded() const { return child_->poll().has_value(); }
  /// Its status as ChildProcess gives it; absent when it still runs when time is up.
  std::optional<int> wait(std::chrono::milliseconds timeout) const;
  /// What it has written to standard error.
  std::string log() const EXCLUDES(lock_);
  /// The same for standard output.
  std::string output() const EXCLUDES(lock_);

 private:
  std::unique_ptr<ChildProcess> child_;
  mutable Mutex lock_;
  std::string log_ GUARDED_BY(lock_);
  std::string output_ GUARDED_BY(lock_);
  LineReader errorReader_;  // last: they write to what is above
  LineReader outputReader_;
};

}  // namespace verdo::failures
