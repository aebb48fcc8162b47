#include "VerdoDriverCLI/ServiceReport.h"

#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

namespace verdo::cli {
namespace {

constexpr std::ptrdiff_t kMaxNamedLanes = 8;  // of a thousand LLM jobs nobody reads the lanes
/// Characters. systemd drops messages of more than 4,096 bytes.
constexpr std::size_t kMaxStatus = 1000;
/// Signs of life for each one that is due: two may get lost or be late.
constexpr int kFeedsPerInterval = 3;

std::string busyText(const std::vector<std::string>& lanes) {
  if (lanes.empty()) return "";
  const auto named = lanes.begin() + std::min<std::ptrdiff_t>(std::ssize(lanes), kMaxNamedLanes);
  std::string text = fmt::format("; busy: {}", fmt::join(lanes.begin(), named, ", "));
  if (named != lanes.end()) text += fmt::format(" and {} more", lanes.end() - named);
  return text;
}

}  // namespace

ServiceReport::ServiceReport(Tell tell, std::optional<std::chrono::microseconds> watchdog)
    : tell_(std::move(tell)),
      feedInterval_(watchdog ? std::optional(*watchdog / kFeedsPerInterval) : std::nullopt) {
  tell_("STATUS=connecting");
}

void ServiceReport::driverConnected(const std::string& username, std::int64_t /*userId*/,
                                    const std::string& /*serverVersion*/) {
  MutexLock lock(lock_);
  user_ = username;
  tellState("READY=1\n");
}

void ServiceReport::driverBusyLanesChanged(const std::vector<std::string>& lanes) {
  MutexLock lock(lock_);
  lanes_ = lanes;
  tellState();
}

void ServiceReport::driverRetrying(const std::string& message, double retryInSeconds) {
  MutexLock lock(lock_);
  trouble_ = fmt::format("{}; retrying in {:.0f} s", message, retryInSeconds);
  tellState();
}

void ServiceReport::driverRecovered() {
  MutexLock lock(lock_);
  trouble_.clear();
  tellState();
}

void ServiceReport::driverIsAlive() {
  if (!feedInterval_) return;
  MutexLock lock(lock_);
  const auto now = Clock::now();
  if (now < nextFeed_) return;
  nextFeed_ = now + *feedInterval_;
  tell_("WATCHDOG=1");
}

void ServiceReport::driverStopping() {
  MutexLock lock(lock_);
  isStopping_ = true;
  // From now on the service manager's limit for a stop holds, not its watchdog's.
  tellState("STOPPING=1\n");
}

void ServiceReport::ended(const std::string& reason) {
  tell_("STATUS=" + firstCharacters(forLog(reason), kMaxStatus));
}

void ServiceReport::tellState(const char* assignment) {
  std::string state = isStopping_ ? "stopping" : "serving " + user_;
  state += lanes_.empty() && !isStopping_ ? "; idle" : busyText(lanes_);
  if (!isStopping_ && !trouble_.empty()) state += "; " + trouble_;
  tell_(fmt::format("{}STATUS={}", assignment, firstCharacters(forLog(state), kMaxStatus)));
}

}  // namespace verdo::cli
