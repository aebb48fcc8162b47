#pragma once

#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Misbehaviour.h"
#include "tests/Support/Recorder.h"

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace verdo::test {

using Lines = std::vector<std::string>;

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
          for (const auto line : lines) lines_.add(std::string(line));
        }) {}

  LineReader& reader() { return reader_; }
  CollectedLines& start() {
    reader_.start();
    return *this;
  }
  Lines now() const { return lines_.all(); }
  /// As one text, every line with its line end.
  std::string text() const {
    std::string joined;
    for (const auto& line : now()) joined.append(line).append("\n");
    return joined;
  }
  /// All lines up to the end of the output.
  Lines all() {
    EXPECT_TRUE(reader_.done().waitFor(std::chrono::seconds(20))) << "the output does not end";
    return now();
  }
  bool waitForCount(long count) const {
    return lines_.waitFor(holding(""), std::chrono::seconds(30), count);
  }
  /// True as soon as a line holds this text, false when that takes too long.
  bool waitFor(const std::string& text) const {
    return lines_.waitFor(holding(text), std::chrono::seconds(20));
  }

 private:
  Recorder<std::string> lines_;
  LineReader reader_;
};

}  // namespace verdo::test
