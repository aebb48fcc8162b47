#pragma once

#include "VerdoDriver/Model/DriverLog.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace verdo::test {

/// Keeps the lines of the driver log, its levels dropped as the real one drops them.
class RecordingDriverLog : public DriverLog {
 public:
  void write(const std::string& line) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  void info(const std::string& text) override { write(text); }
  void success(const std::string& text) override { write(text); }
  void warn(const std::string& text) override { write(text); }
  void error(const std::string& text) override { write(text); }

  std::vector<std::string> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  bool has(const std::string& text) const {
    const auto now = lines();
    return std::any_of(now.begin(), now.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace verdo::test
