#pragma once

#include "VerdoDriver/Model/DriverLog.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace verdo {

/// The driver log as a file, "driver.log", whose older parts are kept as "driver.log.1" (the
/// newest) and so on. Any thread may write, and so may a second instance of the app.
///
/// Each line stands behind the local time. Further lines of a text are indented to where its first
/// one begins, so that they cannot pass for lines of their own; control characters, and what else
/// breaks a line or turns its direction around, are written out.
/// What goes wrong is told to the system log once an hour for each kind of failure.
///
/// A thread of its own writes the file, so that a slow disk, or a process that was stopped while it
/// had its turn, holds nobody up. The program that ends calls flush() first.
class FileLog : public DriverLog {
 public:
  static constexpr std::uint64_t kMaxBytes = 5 * 1024 * 1024;
  static constexpr int kKeep = 3;
  /// How much text may wait for the disk; what comes then is lost, and the log says how many lines.
  static constexpr std::size_t kMaxWaiting = 1024 * 1024;

  /// How long another instance may hold the file up. It needs microseconds, but may have been
  /// stopped.
  static constexpr std::chrono::milliseconds kPatience{200};

  /// logDirectory(), where this system's users look for the logs of programs.
  static std::string defaultDirectory();

  /// Touches nothing until the first line. `maxBytes` bounds the file, `keep` (at least 1) the
  /// number of older ones.
  explicit FileLog(std::string directory = defaultDirectory(), std::uint64_t maxBytes = kMaxBytes,
                   int keep = kKeep, std::chrono::milliseconds patience = kPatience);
  /// Flushes.
  ~FileLog() override;

  /// The file that is written to. It need not exist.
  const std::string& path() const { return path_; }

  void write(const std::string& line) override;
  /// Returns once the lines written so far are in the file, or could not be written. False when
  /// `timeout` ran out first: the lines may still come.
  bool flush(std::chrono::milliseconds timeout = kFlushTimeout);
  // What the driver says, behind the sign that it has on the console, too.
  void info(const std::string& text) override { write("· " + text); }
  void success(const std::string& text) override { write("✓ " + text); }
  void warn(const std::string& text) override { write("! " + text); }
  void error(const std::string& text) override { write("✗ " + text); }

 private:
  class Writer;
  static constexpr std::chrono::seconds kFlushTimeout{2};

  const std::string path_;
  const std::shared_ptr<Writer> writer_;
};

}  // namespace verdo
