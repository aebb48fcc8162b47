#pragma once

#include "VerdoDriverCore/Contract/DriverObserver.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/Jobs/JobHost.h"
#include "VerdoDriverCore/Run/PollWait.h"
#include "VerdoDriverCore/Run/RunningJobs.h"
#include "VerdoDriverCore/Run/TaskSpaces.h"

#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// One run's serving: polls for jobs while lanes are free, gives each to a worker, and shuts
/// everything down in the end.
class Driver : public JobHost, public std::enable_shared_from_this<Driver> {
 public:
  using Duration = std::chrono::steady_clock::duration;

  struct Options {
    int maxJobs = 1;         ///< lanes, at least 1
    double pollWait = 25.0;  ///< long-poll wait, seconds
    std::string llmKey;      ///< empty: none
    std::string llmBase;     ///< provider base URL
    HttpSession::Options providerSession;
    TaskSpaces::Options spaces;
    Timings timings;
  };

  /// `claim` may be null: nobody else looks after the task spaces.
  Driver(Options options, std::shared_ptr<Api> api, std::shared_ptr<LogSink> log,
         std::shared_ptr<Browser> browser, std::unique_ptr<SpaceClaim> claim,
         std::weak_ptr<DriverObserver> observer);

  /// Closes leftover task spaces. Before serve(), on the same thread.
  void sweepSpaces(TaskSpaces::Sweep sweep);
  /// Serves until told to stop, until `serveJobs` jobs were served or nothing came for `idleExit`
  /// (absent or zero: no limit). Blocks. Nothing is left at work when it returns or throws.
  [[nodiscard]] ExitReason serve(std::optional<int> serveJobs, std::optional<Duration> idleExit);
  /// Makes sweepSpaces() and serve() return soon. Any thread may call it.
  void stop();
  /// SIGKILL to all processes of this run, without waiting. Any thread may call it.
  void killJobsNow();

  // JobHost
  Api& api() override { return *api_; }
  LogSink& log() override { return *log_; }
  Browser& browser() override { return *browser_; }
  const Timings& timings() const override { return options_.timings; }
  BodyLimit& bodyLimit() override { return bodyLimit_; }
  const std::string& llmKey() const override { return options_.llmKey; }
  const std::string& llmBase() const override { return options_.llmBase; }
  std::shared_ptr<HttpSession> providerSession() override EXCLUDES(providerLock_);
  const Event& stopping() const override { return stopping_; }
  void tokenWasRevoked() override;
  void touchSpace(const std::string& name) override { spaces_->touch(name); }
  void workerDone(Worker& worker) override;

 private:
  using Clock = std::chrono::steady_clock;
  enum class PollOutcome { served, empty, ended };

  /// True when it ended of its own accord, with nothing left to do.
  bool serveUntilEnd(std::optional<int> serveJobs, std::optional<Duration> idleExit);
  bool hasServed(std::optional<int> serveJobs, std::optional<Duration> idleExit) const;
  PollOutcome pollOnce();
  PollOutcome waitAfterFailure(const std::exception& failure);
  void learnFrom(const ServerError& failure, Duration waited);
  bool accept(JsonReading reply);
  void reportAlive() const;
  void reportStopping() const;
  void pause(Duration duration) const;
  ExitReason shutdown();

  const Options options_;
  const std::shared_ptr<Api> api_;
  const std::shared_ptr<LogSink> log_;
  const std::shared_ptr<Browser> browser_;
  const std::weak_ptr<DriverObserver> observer_;
  const std::shared_ptr<RunningJobs> jobs_;
  const std::shared_ptr<TaskSpaces> spaces_;
  BodyLimit bodyLimit_;

  Event slotFree_;
  Event stopping_;
  Event tokenRevoked_;
  Event outOfDate_;

  // The serving thread's own.
  PollWait pollWait_;
  Duration retryDelay_;
  bool isRetrying_ = false;  ///< the observer was told so

  Mutex providerLock_;
  std::shared_ptr<HttpSession> providerSession_ GUARDED_BY(providerLock_);
};

}  // namespace verdo
