#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace verdo::test {

/// Keeps every line that it is told. Any thread may call any operation.
class RecordingLog : public LogSink {
 public:
  struct Line {
    char level;  ///< 'i' info, 's' success, 'w' warn, 'e' error
    std::string text;
    bool operator==(const Line&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Line& line) {
      return out << line.level << " \"" << line.text << '"';
    }
  };

  void info(const std::string& text) override { add('i', text); }
  void success(const std::string& text) override { add('s', text); }
  void warn(const std::string& text) override { add('w', text); }
  void error(const std::string& text) override { add('e', text); }

  std::vector<Line> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  /// Whether a line holds this text.
  bool has(const std::string& text) const {
    std::lock_guard lock(mutex_);
    return holds(text);
  }
  /// True as soon as a line holds this text, false when the time ran out first.
  bool waitFor(const std::string& text,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return holds(text); });
  }

 private:
  void add(char level, const std::string& text) {
    std::lock_guard lock(mutex_);
    lines_.push_back({level, text});
    changed_.notify_all();
  }
  bool holds(const std::string& text) const {
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const Line& line) { return line.text.find(text) != std::string::npos; });
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Line> lines_;
};

}  // namespace verdo::test
