#pragma once

#include "VerdoDriver/App/RotatingFile.h"
#include "VerdoDriver/Model/DriverLog.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <system_error>

namespace verdo {

/// The driver log as a file, "driver.log", whose older parts are kept as "driver.log.1" (the
/// newest) and so on. Any thread may write, and so may a second instance of the app.
///
/// Each line stands behind the local time. Further lines of a text are indented to where its first
/// one begins, so that they cannot pass for lines of their own; control characters are written out.
/// What goes wrong is told to the system log once an hour for each kind of failure.
class FileLog : public DriverLog {
 public:
  static constexpr std::uint64_t kMaxBytes = 5 * 1024 * 1024;
  static constexpr int kKeep = 3;

  /// logDirectory(), where this system's users look for the logs of programs.
  static std::string defaultDirectory();

  /// Touches nothing until the first line. `maxBytes` bounds the file, `keep` (at least 1) the
  /// number of older ones.
  explicit FileLog(std::string directory = defaultDirectory(), std::uint64_t maxBytes = kMaxBytes,
                   int keep = kKeep);

  /// The file that is written to. It need not exist.
  const std::string& path() const { return path_; }

  void write(const std::string& line) override EXCLUDES(lock_);
  // What the driver says, behind the sign that it has on the console, too.
  void info(const std::string& text) override { write("· " + text); }
  void success(const std::string& text) override { write("✓ " + text); }
  void warn(const std::string& text) override { write("! " + text); }
  void error(const std::string& text) override { write("✗ " + text); }

 private:
  std::optional<std::string> append(const std::string& text) EXCLUDES(lock_);

  const std::string path_;
  Mutex lock_;
  RotatingFile file_ GUARDED_BY(lock_);
  /// When a failure was last told, by its code.
  std::map<std::error_code, std::chrono::steady_clock::time_point> told_ GUARDED_BY(lock_);
};

}  // namespace verdo
