#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "tests/Support/Recorder.h"

#include <ostream>

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

  void info(const std::string& text) override { lines_.add({'i', text}); }
  void success(const std::string& text) override { lines_.add({'s', text}); }
  void warn(const std::string& text) override { lines_.add({'w', text}); }
  void error(const std::string& text) override { lines_.add({'e', text}); }

  std::vector<Line> lines() const { return lines_.all(); }
  /// Whether a line holds this text.
  bool has(const std::string& text) const { return waitFor(text, std::chrono::seconds(0)); }
  /// True as soon as a line holds this text, false when the time ran out first.
  bool waitFor(const std::string& text,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    return lines_.waitFor([&](const Line& line) { return holding(text)(line.text); }, timeout);
  }

 private:
  Recorder<Line> lines_;
};

}  // namespace verdo::test
