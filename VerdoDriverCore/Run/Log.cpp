#include "VerdoDriverCore/Run/Log.h"

#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <fmt/format.h>
#include <unistd.h>

namespace verdo {

StderrLogSink::StderrLogSink(std::optional<bool> color)
    : tty_(color.value_or(::isatty(STDERR_FILENO) == 1)) {}

void StderrLogSink::info(const std::string& text) { write("36", "·", text); }
void StderrLogSink::success(const std::string& text) { write("32", "✓", text); }
void StderrLogSink::warn(const std::string& text) { write("33", "!", text); }
void StderrLogSink::error(const std::string& text) { write("31", "✗", text); }

void StderrLogSink::write(const char* color, const char* sign, const std::string& text) {
  const std::string line =
      tty_ ? fmt::format("\x1b[{}m{} \x1b[0m{}\n", color, sign, withoutControls(text))
           : fmt::format("{} {}\n", sign, withoutControls(text));
  MutexLock lock(lock_);
  // Should it fail, there is nowhere left to say that the log is gone.
  static_cast<void>(writeAll(STDERR_FILENO, line));
}

}  // namespace verdo
