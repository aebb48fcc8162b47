#include "VerdoDriverCore/Run/Log.h"

#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <string_view>

#include <fmt/format.h>
#include <unistd.h>

namespace verdo {
namespace {

/// The text with its further lines moved under the first, where no sign of an entry stands.
std::string indented(std::string text) {
  constexpr std::string_view kIndent = "  ";
  for (auto at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
    text.insert(at + 1, kIndent);
  }
  return text;
}

}  // namespace

StderrLogSink::StderrLogSink(std::optional<bool> color)
    : tty_(color.value_or(::isatty(STDERR_FILENO) == 1)) {}

void StderrLogSink::info(const std::string& text) { write("36", "·", text); }
void StderrLogSink::success(const std::string& text) { write("32", "✓", text); }
void StderrLogSink::warn(const std::string& text) { write("33", "!", text); }
void StderrLogSink::error(const std::string& text) { write("31", "✗", text); }

void StderrLogSink::write(const char* color, const char* sign, const std::string& text) {
  const std::string shown = indented(withoutControls(text));
  const std::string line = tty_ ? fmt::format("\x1b[{}m{} \x1b[0m{}\n", color, sign, shown)
                                : fmt::format("{} {}\n", sign, shown);
  MutexLock lock(lock_);
  // Should it fail, there is nowhere left to say that the log is gone.
  static_cast<void>(writeAll(STDERR_FILENO, line));
}

}  // namespace verdo
