#pragma once

#include "VerdoDriverCore/Contract/DriverObserver.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace verdo::test {

/// Keeps every report of a run as one line of text. Any thread may call any operation.
class RecordingObserver : public DriverObserver {
 public:
  void driverConnected(const std::string& username, std::int64_t userId,
                       const std::string& serverVersion) override {
    add(fmt::format("connected {} {} {}", username, userId, serverVersion));
  }
  void driverBusyLanesChanged(const std::vector<std::string>& lanes) override {
    add(fmt::format("lanes [{}]", fmt::join(lanes, " ")));
  }
  void driverJobStarted(std::int64_t id, const std::string& lane,
                        const std::string& kind) override {
    add(fmt::format("started {} {} {}", id, lane, kind));
  }
  void driverJobFinished(std::int64_t id, const std::string& lane, std::int32_t exitCode,
                         const std::optional<std::string>& error) override {
    add(fmt::format("finished {} {} {} {}", id, lane, exitCode, error.value_or("-")));
  }
  void driverRetrying(const std::string& message, double retryInSeconds) override {
    add(fmt::format("retrying {} {}", retryInSeconds, message));
  }

  std::vector<std::string> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  /// True as soon as `count` reports begin with this text, false after 20 s.
  bool waitFor(const std::string& beginning, long count = 1) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] {
      return std::count_if(events_.begin(), events_.end(), [&](const std::string& event) {
               return event.starts_with(beginning);
             }) >= count;
    });
  }

 private:
  void add(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> events_;
};

}  // namespace verdo::test
