#include "VerdoDriver/App/FileLog.h"

#include "VerdoDriver/App/RotatingFile.h"
#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Platform/LogDirectory.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <QDateTime>
#include <deque>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr const char* kStampFormat = "yyyy-MM-dd HH:mm:ss";
/// As wide as a stamp and the blank behind it.
constexpr const char* kIndent = "                    ";
constexpr std::chrono::hours kReportAgainAfter{1};

using SteadyClock = std::chrono::steady_clock;

/// One entry of the log, which may have several lines.
std::string entryOf(std::string_view text) {
  std::string entry;
  while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
  for (;;) {
    const auto end = text.find('\n');
    auto line = text.substr(0, end);
    if (end != std::string_view::npos && line.ends_with('\r')) line.remove_suffix(1);
    entry += forLog(line);
    if (end == std::string_view::npos) return entry;
    entry += '\n';
    entry += kIndent;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

/// The lines that wait, and the thread that writes them, which is started by the first one. The
/// thread owns it, too: a disk that never answers keeps the thread, not the program.
class FileLog::Writer : public std::enable_shared_from_this<Writer> {
 public:
  explicit Writer(RotatingFile file) : file_(std::move(file)) {}

  void add(const std::string& text) EXCLUDES(lock_) {
    MutexLock lock(lock_);
    if (!waiting_.empty() && waitingBytes_ + text.size() > kMaxWaiting) {
      ++lost_;
      return;
    }
    tellLoss();
    push(text);
    startThread();
  }

  bool flush(std::chrono::milliseconds timeout) EXCLUDES(lock_) {
    const auto deadline = SteadyClock::now() + timeout;
    MutexLock lock(lock_);
    tellLoss();  // no line may follow that would
    const auto target = added_;
    while (written_ < target) {
      startThread();
      if (!changed_.waitUntil(lock_, deadline) && written_ < target) return false;
    }
    return true;
  }

  /// The thread ends once nothing waits.
  void close() EXCLUDES(lock_) {
    MutexLock lock(lock_);
    isClosed_ = true;
    changed_.notifyAll();
  }

 private:
  void tellLoss() REQUIRES(lock_) {
    if (const auto lost = std::exchange(lost_, 0)) {
      push(fmt::format("! {} lines are missing here: the disk was too slow for them", lost));
    }
  }
  void push(const std::string& text) REQUIRES(lock_) {
    // Under the lock, so that the stamps are in order.
    const auto stamp = QDateTime::currentDateTime().toString(kStampFormat).toStdString();
    waitingBytes_ += waiting_.emplace_back(fmt::format("{} {}\n", stamp, text)).size();
    ++added_;
    changed_.notifyAll();
  }

  void startThread() REQUIRES(lock_) {
    if (hasThread_) return;
    try {
      runInBackground("verdo-file-log", [self = shared_from_this()] { self->run(); });
      hasThread_ = true;
    } catch (const std::system_error&) {
      // The lines wait; the next one tries again.
    }
  }

  void run() EXCLUDES(lock_) {
    std::string entry;
    while (take(entry)) {
      if (const auto problem = append(entry)) {
        AppLog::lifecycle.error(fmt::format("[FileLog] write failed: {}", *problem));
      }
      MutexLock lock(lock_);
      ++written_;
      changed_.notifyAll();
    }
  }

  /// Waits for the next entry. False at the end.
  bool take(std::string& entry) EXCLUDES(lock_) {
    MutexLock lock(lock_);
    while (waiting_.empty() && !isClosed_) changed_.wait(lock_);
    if (waiting_.empty()) return false;
    entry = std::move(waiting_.front());
    waiting_.pop_front();
    waitingBytes_ -= entry.size();
    return true;
  }

  /// Gives the failure that is to be reported. Called by the thread.
  std::optional<std::string> append(const std::string& entry) {
    try {
      file_.append(entry);
      return std::nullopt;
    } catch (const std::system_error& error) {
      const auto now = SteadyClock::now();
      const auto [reported, isNew] = reported_.try_emplace(error.code(), now);
      if (!isNew && now - reported->second < kReportAgainAfter) return std::nullopt;
      reported->second = now;
      return error.what();
    }
  }

  RotatingFile file_;  ///< the thread's
  /// When a failure was last reported, by its code; the thread's.
  std::map<std::error_code, SteadyClock::time_point> reported_;

  Mutex lock_;
  Condition changed_;
  std::deque<std::string> waiting_ GUARDED_BY(lock_);
  std::size_t waitingBytes_ GUARDED_BY(lock_) = 0;
  std::uint64_t added_ GUARDED_BY(lock_) = 0;  ///< entries ever
  std::uint64_t written_ GUARDED_BY(lock_) =
      0;                                      ///< of those, the ones that the thread is done with
  std::uint64_t lost_ GUARDED_BY(lock_) = 0;  ///< lines since the last one that was added
  bool hasThread_ GUARDED_BY(lock_) = false;
  bool isClosed_ GUARDED_BY(lock_) = false;
};

std::string FileLog::defaultDirectory() { return logDirectory(); }

FileLog::FileLog(std::string directory, std::uint64_t maxBytes, int keep,
                 std::chrono::milliseconds patience)
    : path_(directory + "/driver.log"),
      writer_(std::make_shared<Writer>(
          RotatingFile(std::move(directory), "driver.log", maxBytes, keep, patience))) {}

FileLog::~FileLog() {
  flush();
  writer_->close();
}

void FileLog::write(const std::string& line) { writer_->add(entryOf(line)); }

bool FileLog::flush(std::chrono::milliseconds timeout) { return writer_->flush(timeout); }

}  // namespace verdo
