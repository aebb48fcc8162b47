#include "VerdoDriverCore/Run/StderrLogSink.h"

#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <cerrno>
#include <climits>
#include <string_view>

#include <fmt/format.h>
#include <poll.h>
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

StderrLogSink::StderrLogSink(std::optional<bool> color, std::chrono::milliseconds patience)
    : tty_(color.value_or(::isatty(STDERR_FILENO) == 1)), patience_(patience) {}

void StderrLogSink::info(const std::string& text) { write("36", "·", text); }
void StderrLogSink::success(const std::string& text) { write("32", "✓", text); }
void StderrLogSink::warn(const std::string& text) { write("33", "!", text); }
void StderrLogSink::error(const std::string& text) { write("31", "✗", text); }

void StderrLogSink::write(const char* color, const char* sign, const std::string& text) {
  const std::string shown = indented(withoutControls(text));
  const std::string line = tty_ ? fmt::format("\x1b[{}m{} \x1b[0m{}\n", color, sign, shown)
                                : fmt::format("{} {}\n", sign, shown);
  MutexLock lock(lock_);
  if (lost_ > 0 && !put(fmt::format("{}! {} lines are missing here: nobody read them\n",
                                    torn_ ? "\n" : "", lost_))) {
    ++lost_;
    return;
  }
  lost_ = put(line) ? 0 : 1;
}

/// Writes a line, waiting for room unless the one before has waited in vain already. A failure of
/// the descriptor itself counts as written: there is nowhere left to say that the log is gone.
bool StderrLogSink::put(std::string_view line) {
  pollfd room{STDERR_FILENO, POLLOUT, 0};
  while (!line.empty()) {
    const int wait = lost_ > 0 ? 0 : static_cast<int>(patience_.count());
    const int ready = ::poll(&room, 1, wait);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return false;
    // A pipe with any room has room for so much: the write cannot block.
    const auto piece = line.substr(0, PIPE_BUF);
    if (writeAll(STDERR_FILENO, piece).error != 0) return true;
    line.remove_prefix(piece.size());
    torn_ = !line.empty();
  }
  return true;
}

}  // namespace verdo
