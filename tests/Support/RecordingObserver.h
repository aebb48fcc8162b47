#pragma once

#include "VerdoDriverCore/Contract/DriverObserver.h"
#include "tests/Support/Recorder.h"

#include <atomic>

#include <fmt/format.h>

namespace verdo::test {

/// Keeps every report of a run as one line of text. Any thread may call any operation.
class RecordingObserver : public DriverObserver {
 public:
  void driverConnected(const std::string& username, std::int64_t userId,
                       const std::string& serverVersion) override {
    events_.add(fmt::format("connected {} {} {}", username, userId, serverVersion));
  }
  void driverBusyLanesChanged(const std::vector<std::string>& lanes) override {
    events_.add(fmt::format("lanes [{}]", fmt::join(lanes, " ")));
  }
  void driverJobStarted(std::int64_t id, const std::string& lane,
                        const std::string& kind) override {
    events_.add(fmt::format("started {} {} {}", id, lane, kind));
  }
  void driverJobFinished(std::int64_t id, const std::string& lane, std::int32_t exitCode,
                         const std::optional<std::string>& error) override {
    events_.add(fmt::format("finished {} {} {} {}", id, lane, exitCode, error.value_or("-")));
  }
  void driverRetrying(const std::string& message, double retryInSeconds) override {
    events_.add(fmt::format("retrying {} {}", retryInSeconds, message));
  }
  void driverRecovered() override { events_.add("recovered"); }
  void driverIsAlive() override { ++signsOfLife; }
  void driverSharesSpaces(const std::string& holder) override {
    events_.add(fmt::format("shares [{}]", holder));
  }

  std::atomic<int> signsOfLife = 0;

  std::vector<std::string> events() const { return events_.all(); }
  /// True as soon as `count` reports begin with this text, false after 20 s.
  bool waitFor(const std::string& beginning, long count = 1) const {
    return events_.waitFor([&](const std::string& event) { return event.starts_with(beginning); },
                           std::chrono::seconds(20), count);
  }

 private:
  Recorder<std::string> events_;
};

}  // namespace verdo::test
