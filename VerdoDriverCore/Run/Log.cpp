#include "VerdoDriverCore/Run/Log.h"

#include "VerdoDriverCore/Values/Utf8.h"

#include <cerrno>

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
  for (std::size_t written = 0; written < line.size();) {
    const ssize_t size = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
    if (size >= 0) {
      written += static_cast<std::size_t>(size);
    } else if (errno != EINTR) {
      return;  // there is nowhere left to say that the log is gone
    }
  }
}

}  // namespace verdo
