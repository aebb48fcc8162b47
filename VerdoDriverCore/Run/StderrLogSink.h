#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace verdo {

/// Writes each line to standard error behind a sign for its level, without a time stamp. Control
/// characters are written out; should a text have further lines, they are indented. A standard
/// error that nobody reads (a full pipe) holds the driver up once, for `patience`; from then on
/// lines are dropped and counted until somebody reads again.
class StderrLogSink : public LogSink {
 public:
  /// `color`: the signs are coloured; absent: when standard error is a terminal.
  explicit StderrLogSink(std::optional<bool> color = std::nullopt,
                         std::chrono::milliseconds patience = std::chrono::seconds(1));
  void info(const std::string& text) override;
  void success(const std::string& text) override;
  void warn(const std::string& text) override;
  void error(const std::string& text) override;

 private:
  void write(const char* color, const char* sign, const std::string& text) EXCLUDES(lock_);

  bool put(std::string_view line) REQUIRES(lock_);

  const bool tty_;
  const std::chrono::milliseconds patience_;
  Mutex lock_;
  int lost_ GUARDED_BY(lock_) = 0;       ///< lines dropped since the last one that got through
  bool torn_ GUARDED_BY(lock_) = false;  ///< what was written last lacks its line end
};

}  // namespace verdo
