#pragma once

#include "VerdoDriver/Model/Clock.h"
#include "VerdoDriver/Model/DriverFactory.h"
#include "VerdoDriver/Model/DriverLog.h"
#include "VerdoDriver/Model/DriverState.h"

#include <QObject>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <tl/expected.hpp>

namespace verdo {

/// Owns the driver: runs it on a thread of its own, one run at a time, shows what it does, decides
/// after each run whether to start another one, and lets go of a run that will not stop.
///
/// Lives on the main thread, never blocks it, and is driven by its clock. Destroying it abandons a
/// run that is still going. Before the process ends: stop(), then killJobsNow() for a run that did
/// not stop in time, then endProcess() (App/EndProcess.h), under whose feet the run's thread goes.
class DriverSupervisor : public QObject {
  Q_OBJECT
  Q_PROPERTY(verdo::DriverState state READ state NOTIFY stateChanged)
  Q_PROPERTY(std::optional<std::string> username READ username NOTIFY usernameChanged)
  Q_PROPERTY(
      std::optional<std::string> serverVersion READ serverVersion NOTIFY serverVersionChanged)
  Q_PROPERTY(std::vector<std::string> busyLanes READ busyLanes NOTIFY busyLanesChanged)
  Q_PROPERTY(qint64 servedCount READ servedCount NOTIFY servedCountChanged)
  Q_PROPERTY(std::optional<std::string> lastJob READ lastJob NOTIFY lastJobChanged)
  Q_PROPERTY(std::optional<std::string> lastError READ lastError NOTIFY lastErrorChanged)
  Q_PROPERTY(std::optional<std::string> retryMessage READ retryMessage NOTIFY retryMessageChanged)
  Q_PROPERTY(bool updateAvailable READ updateAvailable NOTIFY updateAvailableChanged)
 public:
  /// What there is to run with: a configuration, none while the app is not set up, or why the
  /// secret store could not tell.
  using ConfigAnswer = tl::expected<std::optional<DriverConfig>, SecretError>;
  using ConfigReply = std::function<void(ConfigAnswer)>;
  /// Asked for a configuration at every launch, so that each run uses what is set and stored then.
  /// Answers once, on the main thread, at once or when it can. An answer that a later launch or a
  /// stop has overtaken is dropped.
  using ConfigProvider = std::function<void(ConfigReply)>;

  /// A launch without an answer shows as one that waits for the store after this time: most stores
  /// answer sooner, and then nobody needs to know.
  static constexpr std::chrono::seconds kAnswerPatience{1};
  /// Between two questions to a store that is locked or out of order.
  static constexpr std::chrono::seconds kAskAgain{30};
  /// How long a stop waits for a run before it is abandoned, unless the session ends.
  static constexpr std::chrono::seconds kStopTimeout{75};
  /// What the user reads when there is no configuration.
  static constexpr const char* kNotConnected = "not connected — press Connect to website in Setup";

  /// A run that has lost the server after `restartImmediateAfter` or longer is followed by the next
  /// one at once, a shorter one after `backoffDelay`.
  DriverSupervisor(std::shared_ptr<DriverFactory> factory, std::shared_ptr<DriverLog> log,
                   std::shared_ptr<Clock> clock,
                   Clock::Duration restartImmediateAfter = std::chrono::seconds(60),
                   Clock::Duration backoffDelay = std::chrono::seconds(30));
  ~DriverSupervisor() override;

  // These end the program when called on another thread.

  /// Launches a run unless one is current; calls off a back-off. The provider replaces any earlier
  /// one, also for a restart that is under way.
  void start(ConfigProvider configProvider);
  /// Asks the current run to end, and calls `completion` once there is none, never within this
  /// call: when it has ended, or after `timeout`, when it is abandoned. Calls off whatever was
  /// scheduled.
  void stop(Clock::Duration timeout, std::function<void()> completion = {});
  /// Starts again with the last provider, after a stop if a run is current; not when another stop
  /// comes meanwhile. Nothing before the first start.
  void restart();
  /// The network is back or the computer woke up: ends a back-off or a wait for the secret store
  /// now, and tells a current run, as networkChanged() does.
  void kick();
  /// The way to the network is another one: a current run opens its connections anew.
  void networkChanged();
  /// The secret store was unlocked, or has come or gone: a launch that waits for it asks again now.
  void secretsChanged();
  /// Shows nothing of the runs so far; nothing changes while one is current. After stop().
  void forgetHistory();
  /// SIGKILL to the processes of all jobs, those of an abandoned run included.
  void killJobsNow();
  /// Asks all runs to end, waits for that as long as `limit`, and kills the jobs of those that go
  /// on. For an app that must end and has no event loop any more: blocks, and tells nobody.
  void endRunsNow(std::chrono::milliseconds limit);

  // What the user interface shows. Each has its signal, emitted after a change only.
  const DriverState& state() const { return state_; }
  const std::optional<std::string>& username() const { return username_; }
  const std::optional<std::string>& serverVersion() const { return serverVersion_; }
  const std::vector<std::string>& busyLanes() const { return busyLanes_; }
  std::int64_t servedCount() const { return servedCount_; }
  const std::optional<std::string>& lastJob() const { return lastJob_; }
  const std::optional<std::string>& lastError() const { return lastError_; }
  const std::optional<std::string>& retryMessage() const { return retryMessage_; }
  /// What the retry message says, for who counts the seconds down. Changes with it.
  const std::optional<DriverRetry>& retry() const { return retry_; }
  bool updateAvailable() const { return updateAvailable_; }
  /// Names the other driver on this computer that looks after the browser's task spaces, while the
  /// current run leaves them to it; empty otherwise.
  const std::string& spacesHolder() const { return spacesHolder_; }
  /// The current run was asked to end, and has not.
  bool isStopping() const;
  /// A run is being supervised; an abandoned one is not.
  bool hasCurrentRun() const { return current_ != nullptr; }

 Q_SIGNALS:
  void stateChanged();
  void usernameChanged();
  void serverVersionChanged();
  void busyLanesChanged();
  void servedCountChanged();
  void lastJobChanged();
  void lastErrorChanged();
  void retryMessageChanged();
  void updateAvailableChanged();
  void spacesHolderChanged();
  /// isStopping() has become true. It is false again once the state has changed.
  void stopBegan();
  /// A run has ended that was not abandoned before.
  void exited(const verdo::ExitReason& reason);

 private:
  class ObserverBridge;
  struct Run;
  using Changed = void (DriverSupervisor::*)();
  using Generation = std::int64_t;

  void launch();
  void askForConfig();
  void answered(const ConfigAnswer& answer);
  void waitForSecrets(const SecretError& error);
  void launchWith(const DriverConfig& config);
  void askAgain();
  void runEnded(Generation generation, const ExitReason& reason);
  void drainedRunEnded(const ExitReason& reason);
  void decideAfter(const Run& run, const ExitReason& reason, Clock::Duration elapsed);
  void retryLater(const ExitReason& reason, Clock::Duration elapsed);
  void stopTimedOut(Generation generation, Clock::Duration timeout);
  void cancelWait();
  void flushStopWaiters();
  void transition(DriverState state);
  template <typename State>
  bool is() const {
    return std::holds_alternative<State>(state_);
  }
  template <typename T, typename U>
  void assign(T& property, U value, Changed changed);

  // Reports of the current run.
  bool isCurrent(Generation generation) const;
  void connected(const std::string& username, const std::string& serverVersion);
  void retrying(const std::string& message, double retryIn);
  void recovered();
  void forgetDoings();
  void jobFinished(std::int64_t id, const std::string& lane, std::int32_t exitCode,
                   const std::optional<std::string>& error);

  const std::shared_ptr<DriverFactory> factory_;
  const std::shared_ptr<DriverLog> log_;
  const std::shared_ptr<Clock> clock_;
  const Clock::Duration restartImmediateAfter_;
  const Clock::Duration backoffDelay_;

  DriverState state_;
  std::optional<std::string> username_;
  std::optional<std::string> serverVersion_;
  std::vector<std::string> busyLanes_;
  std::int64_t servedCount_ = 0;
  std::optional<std::string> lastJob_;
  std::optional<std::string> lastError_;
  std::optional<std::string> retryMessage_;
  std::optional<DriverRetry> retry_;
  bool updateAvailable_ = false;
  std::string spacesHolder_;

  std::shared_ptr<Run> current_;
  Generation generation_ = 0;      ///< number of the last run launched
  std::shared_ptr<Run> draining_;  ///< the abandoned run that still goes on
  bool launchPending_ = false;     ///< to be launched once the abandoned run has ended
  ConfigProvider configProvider_;
  std::uint64_t lastQuestion_ = 0;         ///< to the provider
  std::optional<std::uint64_t> question_;  ///< whose answer is still to come, and counts
  std::shared_ptr<ClockToken> waitToken_;  ///< of a back-off or a wait for the secret store
  std::shared_ptr<ClockToken> stopTimeout_;
  std::uint64_t stops_ = 0;  ///< ever; only what the last one was for comes after it
  std::vector<std::function<void()>> stopWaiters_;
};

}  // namespace verdo
