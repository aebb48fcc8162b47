#include "VerdoDriver/Model/DriverSupervisor.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/Url.h"

#include <QPointer>
#include <chrono>
#include <cmath>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

std::int64_t wholeSeconds(Clock::Duration time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time).count();
}

/// A key shows as "none" where a token shows as "(none)".
std::string maskedKey(const std::string& key) { return key.empty() ? "none" : masked(key); }

}  // namespace

struct DriverSupervisor::Run {
  Run(Generation number, std::shared_ptr<DriverHandle> driver, Clock::TimePoint now)
      : generation(number), handle(std::move(driver)), startedAt(now) {}

  const Generation generation;
  const std::shared_ptr<DriverHandle> handle;
  const Clock::TimePoint startedAt;
  bool stopRequested = false;
  Event hasEnded;  ///< which the main thread need not have heard of yet
};

/// Carries the reports of one run, which arrive on its threads, to the main thread. Reports of a
/// run that is no longer current are dropped there.
class DriverSupervisor::ObserverBridge : public DriverObserver {
 public:
  ObserverBridge(QPointer<DriverSupervisor> supervisor, Generation generation)
      : supervisor_(std::move(supervisor)), generation_(generation) {}

  void driverConnected(const std::string& username, std::int64_t,
                       const std::string& serverVersion) override {
    post([=](DriverSupervisor& supervisor) { supervisor.connected(username, serverVersion); });
  }
  void driverBusyLanesChanged(const std::vector<std::string>& lanes) override {
    post([=](DriverSupervisor& supervisor) {
      supervisor.assign(supervisor.busyLanes_, lanes, &DriverSupervisor::busyLanesChanged);
    });
  }
  void driverJobStarted(std::int64_t id, const std::string& lane,
                        const std::string& kind) override {
    post([text = fmt::format("job {} · {} · {}…", id, lane, kind)](DriverSupervisor& supervisor) {
      supervisor.assign(supervisor.lastJob_, text, &DriverSupervisor::lastJobChanged);
    });
  }
  void driverJobFinished(std::int64_t id, const std::string& lane, std::int32_t exitCode,
                         const std::optional<std::string>& error) override {
    post([=](DriverSupervisor& supervisor) { supervisor.jobFinished(id, lane, exitCode, error); });
  }
  void driverRetrying(const std::string& message, double retryInSeconds) override {
    post([=](DriverSupervisor& supervisor) { supervisor.retrying(message, retryInSeconds); });
  }
  void driverRecovered() override {
    post([](DriverSupervisor& supervisor) { supervisor.recovered(); });
  }
  void driverSharesSpaces(const std::string& holder) override {
    post([=](DriverSupervisor& supervisor) {
      supervisor.assign(supervisor.spacesHolder_, holder, &DriverSupervisor::spacesHolderChanged);
    });
  }

 private:
  template <typename Report>
  void post(const Report& report) {
    MainThread::post([supervisor = supervisor_, generation = generation_, report] {
      if (supervisor && supervisor->isCurrent(generation)) report(*supervisor);
    });
  }

  const QPointer<DriverSupervisor> supervisor_;
  const Generation generation_;
};

DriverSupervisor::DriverSupervisor(std::shared_ptr<DriverFactory> factory,
                                   std::shared_ptr<DriverLog> log, std::shared_ptr<Clock> clock,
                                   Clock::Duration restartImmediateAfter,
                                   Clock::Duration backoffDelay)
    : factory_(std::move(factory)),
      log_(std::move(log)),
      clock_(std::move(clock)),
      restartImmediateAfter_(restartImmediateAfter),
      backoffDelay_(backoffDelay) {}

DriverSupervisor::~DriverSupervisor() {
  cancelWait();
  if (stopTimeout_) stopTimeout_->cancel();
}

void DriverSupervisor::start(ConfigProvider configProvider) {
  MainThread::require("DriverSupervisor::start");
  configProvider_ = std::move(configProvider);
  cancelWait();
  if (current_) {
    AppLog::supervisor.debug("[Supervisor] start ignored — a run is active");
    return;
  }
  launch();
}

void DriverSupervisor::stop(Clock::Duration timeout, std::function<void()> completion) {
  MainThread::require("DriverSupervisor::stop");
  cancelWait();
  ++stops_;
  if (!current_) {
    launchPending_ = false;
    question_.reset();
    if (is<DriverStarting>() || is<DriverBackoff>() || is<DriverWaiting>()) {
      transition(DriverIdle{});
    }
    if (completion) MainThread::post(std::move(completion));
    return;
  }
  if (completion) stopWaiters_.push_back(std::move(completion));
  if (std::exchange(current_->stopRequested, true)) return;
  log_->write(fmt::format("» stop requested (run #{})", current_->generation));
  current_->handle->stop();
  Q_EMIT stopBegan();
  stopTimeout_ =
      clock_->after(timeout, [self = QPointer(this), generation = current_->generation, timeout] {
        if (self) self->stopTimedOut(generation, timeout);
      });
}

void DriverSupervisor::restart() {
  MainThread::require("DriverSupervisor::restart");
  if (!configProvider_) return;
  if (!current_) return start(configProvider_);
  stop(kStopTimeout, [self = QPointer(this), stop = stops_ + 1] {
    if (self && self->stops_ == stop) self->start(self->configProvider_);
  });
}

void DriverSupervisor::kick() {
  MainThread::require("DriverSupervisor::kick");
  networkChanged();
  if (is<DriverWaiting>() && !question_) return askAgain();
  if (!is<DriverBackoff>() || current_) return;
  AppLog::supervisor.info("[Supervisor] kick — restarting now instead of waiting out the backoff");
  cancelWait();
  launch();
}

void DriverSupervisor::networkChanged() {
  MainThread::require("DriverSupervisor::networkChanged");
  if (current_) current_->handle->networkChanged();
}

void DriverSupervisor::secretsChanged() {
  MainThread::require("DriverSupervisor::secretsChanged");
  // Also in the place of a question that is open, whose answer may be from before the change.
  if (is<DriverWaiting>() || question_) askAgain();
}

void DriverSupervisor::killJobsNow() {
  MainThread::require("DriverSupervisor::killJobsNow");
  for (const auto& run : {current_, draining_}) {
    if (run) run->handle->killJobsNow();
  }
}

void DriverSupervisor::endRunsNow(std::chrono::milliseconds limit) {
  MainThread::require("DriverSupervisor::endRunsNow");
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (const auto& run : {current_, draining_}) {
    if (run) run->handle->stop();
  }
  for (const auto& run : {current_, draining_}) {
    if (run) run->hasEnded.waitFor(deadline - std::chrono::steady_clock::now());
  }
  killJobsNow();
}

bool DriverSupervisor::isStopping() const { return current_ && current_->stopRequested; }

void DriverSupervisor::forgetHistory() {
  MainThread::require("DriverSupervisor::forgetHistory");
  if (current_) return;
  assign(username_, std::nullopt, &DriverSupervisor::usernameChanged);
  assign(serverVersion_, std::nullopt, &DriverSupervisor::serverVersionChanged);
  assign(servedCount_, 0, &DriverSupervisor::servedCountChanged);
  assign(lastJob_, std::nullopt, &DriverSupervisor::lastJobChanged);
  assign(lastError_, std::nullopt, &DriverSupervisor::lastErrorChanged);
  recovered();
  transition(DriverIdle{});
}

void DriverSupervisor::launch() {
  if (draining_) {
    launchPending_ = true;
    transition(DriverStarting{});
    AppLog::supervisor.info(fmt::format("[Supervisor] launch deferred — run #{} still draining",
                                        draining_->generation));
    return;
  }
  launchPending_ = false;
  askForConfig();
}

void DriverSupervisor::askForConfig() {
  const auto question = ++lastQuestion_;
  question_ = question;
  const auto provider = configProvider_;  // a copy: its answer may lead to another one
  if (!provider) return answered(std::nullopt);
  provider([self = QPointer(this), question](const ConfigAnswer& answer) {
    if (self && self->question_ == question) self->answered(answer);
  });
  // Answered already, overtaken, or asked again by one that waits.
  if (question_ != question || is<DriverWaiting>()) return;
  transition(DriverStarting{});
  waitToken_ = clock_->after(kAnswerPatience, [self = QPointer(this), question] {
    if (self && self->question_ == question) self->transition(DriverWaiting{});
  });
}

void DriverSupervisor::answered(const ConfigAnswer& answer) {
  question_.reset();
  cancelWait();
  if (!answer) return waitForSecrets(answer.error());
  if (*answer) return launchWith(**answer);
  transition(DriverStopped{ExitReason::badConfig(kNotConnected)});
}

/// A store that does not tell what it holds is not an empty one: no reason to ask the user to pair.
void DriverSupervisor::waitForSecrets(const SecretError& error) {
  transition(DriverWaiting{error.kind, error.description});
  waitToken_ = clock_->after(kAskAgain, [self = QPointer(this)] {
    if (self) self->askAgain();
  });
}

void DriverSupervisor::askAgain() {
  cancelWait();
  askForConfig();
}

void DriverSupervisor::launchWith(const DriverConfig& config) {
  const auto generation = ++generation_;
  const auto bridge = std::make_shared<ObserverBridge>(QPointer(this), generation);
  const auto handle = factory_->makeDriver(config, log_, bridge);
  const auto run = current_ = std::make_shared<Run>(generation, handle, clock_->now());
  recovered();
  transition(DriverStarting{});
  log_->write(fmt::format("» driver run #{} starting (server {}, token {}, key {})", generation,
                          withoutUserInfo(config.server), masked(config.token),
                          maskedKey(config.llmKey)));
  const auto ended = [self = QPointer(this), generation](const ExitReason& reason) {
    if (self) self->runEnded(generation, reason);
  };
  try {
    // The bridge lives as long as the run, which only knows it weakly.
    runInBackground(
        fmt::format("verdo-driver-{}", generation),
        [run, bridge] {
          const auto reason = run->handle->run();
          run->hasEnded.set();
          return reason;
        },
        ended);
  } catch (const std::system_error& error) {
    // As likely to go away by itself as a server that is down, and so treated alike.
    MainThread::post(
        [ended, reason = ExitReason::serverUnreachable(
                    fmt::format("no thread for the driver: {}", error.what()))] { ended(reason); });
  }
}

void DriverSupervisor::stopTimedOut(Generation generation, Clock::Duration timeout) {
  if (!isCurrent(generation)) return;
  AppLog::supervisor.error(
      fmt::format("[Supervisor] run #{} did not stop within {:f}s — draining it", generation,
                  std::chrono::duration<double>(timeout).count()));
  log_->write(fmt::format("» driver did not stop in {}s — draining (no new run until it returns)",
                          wholeSeconds(timeout)));
  draining_ = std::exchange(current_, nullptr);
  forgetDoings();
  transition(DriverIdle{});
  flushStopWaiters();
}

void DriverSupervisor::runEnded(Generation generation, const ExitReason& reason) {
  if (draining_ && draining_->generation == generation) return drainedRunEnded(reason);
  if (!isCurrent(generation)) {
    AppLog::supervisor.debug(
        fmt::format("[Supervisor] stale run #{} ended ({}) — ignored", generation, reason.code()));
    return;
  }
  const auto run = std::exchange(current_, nullptr);
  if (stopTimeout_) stopTimeout_->cancel();
  stopTimeout_.reset();
  forgetDoings();
  const Clock::Duration elapsed = clock_->now() - run->startedAt;
  const bool hasMessage = !reason.message().empty();
  log_->write(fmt::format("» run #{} ended: exit {}{}{} after {}s", generation, reason.code(),
                          hasMessage ? " — " : "", reason.message(), wholeSeconds(elapsed)));
  if (hasMessage) assign(lastError_, reason.message(), &DriverSupervisor::lastErrorChanged);
  decideAfter(*run, reason, elapsed);
  flushStopWaiters();
  Q_EMIT exited(reason);
}

void DriverSupervisor::drainedRunEnded(const ExitReason& reason) {
  const auto run = std::exchange(draining_, nullptr);
  log_->write(fmt::format("» drained run #{} returned (exit {})", run->generation, reason.code()));
  AppLog::supervisor.info(fmt::format("[Supervisor] drained run #{} returned — {}", run->generation,
                                      launchPending_ ? "launching the deferred run" : "idle"));
  if (launchPending_) return launch();
  if (is<DriverStarting>()) transition(DriverIdle{});
}

void DriverSupervisor::decideAfter(const Run& run, const ExitReason& reason,
                                   Clock::Duration elapsed) {
  if (run.stopRequested) return transition(DriverIdle{});
  switch (reason.kind()) {
    case ExitReason::Kind::outOfDate:
      assign(updateAvailable_, true, &DriverSupervisor::updateAvailableChanged);
      [[fallthrough]];
    case ExitReason::Kind::badConfig:
    case ExitReason::Kind::tokenRevoked:
    case ExitReason::Kind::llmKeyRejected:
    case ExitReason::Kind::noExecutor:
      return transition(DriverStopped{reason});
    case ExitReason::Kind::clean:
    case ExitReason::Kind::stopped:
      return transition(DriverIdle{});
    case ExitReason::Kind::serverUnreachable:
      break;
  }
  if (elapsed < restartImmediateAfter_) return retryLater(reason, elapsed);
  AppLog::supervisor.info(
      fmt::format("[Supervisor] exit 1 after {}s — restarting immediately", wholeSeconds(elapsed)));
  launch();
}

/// The pause is always the same: the service may be back at any moment.
void DriverSupervisor::retryLater(const ExitReason& reason, Clock::Duration elapsed) {
  AppLog::supervisor.info(fmt::format("[Supervisor] exit 1 after {}s — retry in {}s",
                                      wholeSeconds(elapsed), wholeSeconds(backoffDelay_)));
  const auto until =
      clock_->now() + std::chrono::duration_cast<Clock::TimePoint::duration>(backoffDelay_);
  transition(DriverBackoff{until, reason.message()});
  waitToken_ = clock_->after(backoffDelay_, [self = QPointer(this)] {
    if (self && self->is<DriverBackoff>() && !self->current_) self->launch();
  });
}

void DriverSupervisor::cancelWait() {
  if (waitToken_) waitToken_->cancel();
  waitToken_.reset();
}

void DriverSupervisor::flushStopWaiters() {
  for (const auto& waiter : std::exchange(stopWaiters_, {})) waiter();
}

void DriverSupervisor::transition(DriverState state) {
  if (state == state_) return;
  AppLog::supervisor.info(fmt::format("[Supervisor] {} → {}", toText(state_), toText(state)));
  assign(state_, std::move(state), &DriverSupervisor::stateChanged);
}

template <typename T, typename U>
void DriverSupervisor::assign(T& property, U value, Changed changed) {
  if (property == value) return;
  property = std::move(value);
  Q_EMIT(this->*changed)();
}

bool DriverSupervisor::isCurrent(Generation generation) const {
  return current_ && current_->generation == generation;
}

void DriverSupervisor::connected(const std::string& username, const std::string& serverVersion) {
  assign(username_, username, &DriverSupervisor::usernameChanged);
  assign(serverVersion_, serverVersion, &DriverSupervisor::serverVersionChanged);
  recovered();
  assign(lastError_, std::nullopt, &DriverSupervisor::lastErrorChanged);
  transition(DriverRunning{});
  log_->write(fmt::format("» connected as {} (server driver v{})", username, serverVersion));
}

void DriverSupervisor::retrying(const std::string& message, double retryIn) {
  retry_ =
      DriverRetry{message, clock_->now() + std::chrono::duration_cast<Clock::TimePoint::duration>(
                                               std::chrono::duration<double>(retryIn))};
  assign(retryMessage_, fmt::format("{} — retrying in {} s", message, std::lround(retryIn)),
         &DriverSupervisor::retryMessageChanged);
}

void DriverSupervisor::recovered() {
  retry_.reset();
  assign(retryMessage_, std::nullopt, &DriverSupervisor::retryMessageChanged);
}

/// What was true of a run while it was supervised.
void DriverSupervisor::forgetDoings() {
  assign(busyLanes_, std::vector<std::string>(), &DriverSupervisor::busyLanesChanged);
  assign(spacesHolder_, "", &DriverSupervisor::spacesHolderChanged);
}

void DriverSupervisor::jobFinished(std::int64_t id, const std::string& lane, std::int32_t exitCode,
                                   const std::optional<std::string>& error) {
  assign(servedCount_, servedCount_ + 1, &DriverSupervisor::servedCountChanged);
  assign(lastJob_, fmt::format("job {} · {} · exit {}", id, lane, exitCode),
         &DriverSupervisor::lastJobChanged);
  if (!error.value_or("").empty()) {
    assign(lastError_, *error, &DriverSupervisor::lastErrorChanged);
  }
}

}  // namespace verdo
