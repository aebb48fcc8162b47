#pragma once

#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Misbehaviour.h"

#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

namespace verdo::test {

using Lines = std::vector<std::string>;

/// True when the process has ended, whether or not somebody has reaped it.
inline bool isGone(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  const auto name = text.rfind(')');
  return name == std::string::npos || text[name + 2] == 'Z' || text[name + 2] == 'X';
}

/// Starts this program as a child in one of its roles.
inline std::unique_ptr<ChildProcess> launchRole(const Lines& role,
                                                const Environment& env = currentEnvironment(),
                                                bool mergeStderr = true) {
  return Spawn::launch(selfPath(), roleArgv(role), env, mergeStderr);
}

/// The lines of a descriptor, collected on a reader's thread.
class CollectedLines {
 public:
  explicit CollectedLines(UniqueFd source)
      : reader_(std::move(source), [this](std::span<const std::string_view> lines) {
          std::lock_guard lock(mutex_);
          lines_.insert(lines_.end(), lines.begin(), lines.end());
        }) {}

  LineReader& reader() { return reader_; }
  CollectedLines& start() {
    reader_.start();
    return *this;
  }
  Lines now() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  /// All lines up to the end of the output.
  Lines all() {
    EXPECT_TRUE(reader_.done().waitFor(std::chrono::seconds(20))) << "the output does not end";
    return now();
  }
  bool waitForCount(std::size_t count) {
    return eventually([&] { return now().size() >= count; });
  }

 private:
  std::mutex mutex_;
  Lines lines_;
  LineReader reader_;
};

/// Waits for the line "grandchild PID" and gives the number.
inline pid_t grandchildPid(CollectedLines& output) {
  pid_t pid = -1;
  EXPECT_TRUE(eventually([&] {
    for (const auto& line : output.now()) {
      if (line.starts_with("grandchild ")) pid = static_cast<pid_t>(std::stol(line.substr(11)));
    }
    return pid > 0;
  }));
  return pid;
}

}  // namespace verdo::test
