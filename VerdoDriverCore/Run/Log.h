#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/System/Sync.h"

#include <optional>
#include <string>

namespace verdo {

/// Writes each line to standard error behind a sign for its level, without a time stamp. Control
/// characters are written out; should a text have further lines, they are indented.
class StderrLogSink : public LogSink {
 public:
  /// `color`: the signs are coloured; absent: when standard error is a terminal.
  explicit StderrLogSink(std::optional<bool> color = std::nullopt);
  void info(const std::string& text) override;
  void success(const std::string& text) override;
  void warn(const std::string& text) override;
  void error(const std::string& text) override;

 private:
  void write(const char* color, const char* sign, const std::string& text) EXCLUDES(lock_);

  const bool tty_;
  Mutex lock_;
};

}  // namespace verdo
