#pragma once

#include "VerdoDriver/Model/DriverLog.h"
#include "tests/Support/Recorder.h"

namespace verdo::test {

/// Keeps the lines of the driver log, without the signs of their levels.
class RecordingDriverLog : public DriverLog {
 public:
  void write(const std::string& line) override { lines_.add(line); }
  void info(const std::string& text) override { write(text); }
  void success(const std::string& text) override { write(text); }
  void warn(const std::string& text) override { write(text); }
  void error(const std::string& text) override { write(text); }

  void clear() { lines_.clear(); }
  std::vector<std::string> lines() const { return lines_.all(); }
  bool has(const std::string& text) const { return lines_.waitFor(holding(text), {}); }

 private:
  Recorder<std::string> lines_;
};

}  // namespace verdo::test
