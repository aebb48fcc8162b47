#pragma once

#include "tests/Support/Children.h"
#include "tests/Support/TempDir.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

namespace verdo::test {

/// The built program (verdo-driver, or the app in its tests) as a child process. It is killed at
/// the end of this object's life.
class Program {
 public:
  /// `starter` is a command that becomes the program that it is given, empty for none.
  Program(const Lines& arguments, const Environment& environment, const Lines& starter = {})
      : child_(launch(arguments, environment, starter)),
        output_(child_->takeStdout()),
        errors_(child_->takeStderr()) {
    output_.start();
    errors_.start();
  }

  pid_t pid() const { return child_->pid(); }
  void signal(int number) const { child_->signalGroup(number); }
  /// Its exit status, as ChildProcess gives it; absent when it still runs after 30 s.
  std::optional<int> wait() {
    std::optional<int> status;
    eventually([&] { return (status = child_->poll()).has_value(); }, std::chrono::seconds(30));
    // Its last words come before its end, but may still be on their way through the readers.
    if (status) {
      output_.reader().done().waitFor(std::chrono::seconds(5));
      errors_.reader().done().waitFor(std::chrono::seconds(5));
    }
    return status;
  }
  /// True as soon as a line of its standard error holds this text, false after 20 s.
  bool waitForError(const std::string& text) const { return errors_.waitFor(text); }
  /// What it has printed, every line with its line end.
  std::string output() const { return output_.text(); }
  std::string errors() const { return errors_.text(); }
  /// The content of a file of /proc/{pid}.
  std::string proc(const std::string& name) const {
    return contentOf("/proc/" + std::to_string(pid()) + "/" + name);
  }
  /// The most memory that it has had, bytes.
  std::size_t peakMemory() const {
    const std::string key = "VmHWM:";
    const std::string status = proc("status");
    const auto at = status.find(key);
    return at == std::string::npos ? 0 : std::stoul(status.substr(at + key.size())) * 1024;
  }

 private:
  static std::unique_ptr<ChildProcess> launch(const Lines& arguments, Environment environment,
                                              Lines argv) {
    // Sanitizers of a child take their options from its environment.
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
      if (const char* value = std::getenv(name)) environment[name] = value;
    }
    argv.emplace_back(VERDO_TESTED_PROGRAM);
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return Spawn::launch(argv.front(), argv, environment, false);
  }

  std::unique_ptr<ChildProcess> child_;
  CollectedLines output_;
  CollectedLines errors_;
};

}  // namespace verdo::test
