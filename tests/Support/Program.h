#pragma once

#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Process/Spawn.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace verdo::test {

/// The built verdo-driver as a child process. It is killed at the end of this object's life.
class Program {
 public:
  /// `starter` is a command that becomes the program that it is given, empty for none.
  Program(const std::vector<std::string>& arguments, const Environment& environment,
          const std::vector<std::string>& starter = {});

  pid_t pid() const { return child_->pid(); }
  void signal(int number) const { child_->signalGroup(number); }
  /// Its exit status, as ChildProcess gives it; absent when it still runs after 30 s.
  std::optional<int> wait();
  /// True as soon as a line of its standard error holds this text, false after 20 s.
  bool waitForError(const std::string& text) const;
  /// What it has printed, every line with its line end.
  std::string output() const;
  std::string errors() const;
  /// The content of a file of /proc/{pid}.
  std::string proc(const std::string& name) const;
  /// The most memory that it has had, bytes.
  std::size_t peakMemory() const;

 private:
  LineReader::OnLines into(std::string& text);

  std::unique_ptr<ChildProcess> child_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::string output_;
  std::string errors_;
  LineReader outputReader_;
  LineReader errorReader_;
};

}  // namespace verdo::test
