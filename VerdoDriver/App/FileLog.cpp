#include "VerdoDriver/App/FileLog.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/LogDirectory.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <QDateTime>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr const char* kStampFormat = "yyyy-MM-dd HH:mm:ss";
/// As wide as a stamp and the blank behind it.
constexpr const char* kIndent = "                    ";
constexpr std::chrono::hours kTellAgainAfter{1};

/// One entry of the log, which may have several lines.
std::string entryOf(std::string_view text) {
  std::string entry;
  while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
  for (;;) {
    const auto end = text.find('\n');
    auto line = text.substr(0, end);
    if (end != std::string_view::npos && line.ends_with('\r')) line.remove_suffix(1);
    entry += withoutControls(line);
    if (end == std::string_view::npos) return entry;
    entry += '\n';
    entry += kIndent;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

std::string FileLog::defaultDirectory() { return logDirectory(); }

FileLog::FileLog(std::string directory, std::uint64_t maxBytes, int keep)
    : path_(directory + "/driver.log"), file_(std::move(directory), "driver.log", maxBytes, keep) {}

void FileLog::write(const std::string& line) {
  // Told outside of the lock: whoever receives the system log may write here, too.
  if (const auto problem = append(entryOf(line))) {
    AppLog::lifecycle.error(fmt::format("[FileLog] write failed: {}", *problem));
  }
}

std::optional<std::string> FileLog::append(const std::string& text) {
  MutexLock lock(lock_);
  try {
    // Under the lock, so that the stamps are in order.
    const auto stamp = QDateTime::currentDateTime().toString(kStampFormat).toStdString();
    file_.append(fmt::format("{} {}\n", stamp, text));
    return std::nullopt;
  } catch (const std::system_error& error) {
    const auto now = std::chrono::steady_clock::now();
    const auto [told, isNew] = told_.try_emplace(error.code(), now);
    if (!isNew && now - told->second < kTellAgainAfter) return std::nullopt;
    told->second = now;
    return error.what();
  }
}

}  // namespace verdo
