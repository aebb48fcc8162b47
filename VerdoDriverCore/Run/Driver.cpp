#include "VerdoDriverCore/Run/Driver.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Network/Errors.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

/// A proxy that waits no longer says so, or, where it is a tunnel, closes without a word.
bool mayBeForItsWait(ServerError::Cause cause) {
  using Cause = ServerError::Cause;
  return cause == Cause::waitTooLong || cause == Cause::streamReset || cause == Cause::closed;
}

}  // namespace

Driver::Driver(Options options, std::shared_ptr<Api> api, std::shared_ptr<LogSink> log,
               std::shared_ptr<Browser> browser, std::unique_ptr<SpaceClaim> claim,
               std::weak_ptr<DriverObserver> observer)
    : options_(std::move(options)),
      api_(std::move(api)),
      log_(std::move(log)),
      browser_(std::move(browser)),
      observer_(observer),
      jobs_(std::make_shared<RunningJobs>(std::move(observer))),
      spaces_(std::make_shared<TaskSpaces>(
          options_.spaces, browser_, log_, std::move(claim),
          [jobs = jobs_](const std::string& name) { return jobs->usesSpace(name); })),
      pollWait_(options_.pollWait),
      retryDelay_(options_.timings.pollRetryFirst) {}

void Driver::sweepSpaces(TaskSpaces::Sweep sweep) {
  spaces_->sweepAtStart(sweep, [this] { reportAlive(); });
}

ExitReason Driver::serve(std::optional<int> serveJobs, std::optional<Duration> idleExit) {
  bool isServed = false;
  try {
    spaces_->startReaper();
    jobs_->beginIdling();
    isServed = serveUntilEnd(serveJobs, idleExit);
  } catch (...) {
    static_cast<void>(shutdown());
    throw;
  }
  if (!isServed) return shutdown();
  reportStopping();
  stopping_.set();
  spaces_->interrupt();
  spaces_->waitForReaper(options_.timings.shutdownPerWorker);
  return ExitReason::clean();
}

bool Driver::serveUntilEnd(std::optional<int> serveJobs, std::optional<Duration> idleExit) {
  int quickEmptyReplies = 0;
  while (!stopping_.isSet() && !tokenRevoked_.isSet()) {
    reportAlive();
    if (hasServed(serveJobs, idleExit)) return true;
    // Once enough were served, the last ones only have to finish.
    const bool enough = serveJobs && jobs_->served() >= *serveJobs;
    if (enough || jobs_->lanesTaken() >= options_.maxJobs) {
      slotFree_.waitFor(options_.timings.laneWait);
      slotFree_.clear();
      continue;
    }
    const auto asked = Clock::now();
    const PollOutcome outcome = pollOnce();
    if (outcome == PollOutcome::ended) return false;
    const bool quick =
        outcome == PollOutcome::empty && Clock::now() - asked < options_.timings.emptyPollQuick;
    quickEmptyReplies = quick ? quickEmptyReplies + 1 : 0;
    if (quickEmptyReplies >= 2) stopping_.waitFor(options_.timings.emptyPollPause);
  }
  return false;
}

/// Nothing is left to do, by the limits that the run was given.
bool Driver::hasServed(std::optional<int> serveJobs, std::optional<Duration> idleExit) const {
  if (serveJobs && jobs_->served() >= *serveJobs && jobs_->isQuiet()) return true;
  return idleExit && *idleExit != Duration::zero() && jobs_->idleFor() > *idleExit;
}

/// One poll, its job started if it brought one. A failed poll counts as served once its pause is
/// over: the pause is guard enough.
Driver::PollOutcome Driver::pollOnce() {
  std::optional<JsonReading> reply;
  const auto asked = Clock::now();
  try {
    reply = api_->poll(pollWait_.seconds(), jobs_->lanes(),
                       {options_.timings.aliveInterval, [this] { reportAlive(); }});
  } catch (const ServerError& failure) {
    switch (failure.kind()) {
      case ServerError::Kind::auth:
        log_->error(forLog(failure.what()));
        tokenRevoked_.set();
        return PollOutcome::ended;
      case ServerError::Kind::outOfDate:
        log_->error(forLog(failure.what()));
        outOfDate_.set();
        return PollOutcome::ended;
      case ServerError::Kind::server:
        break;
    }
    learnFrom(failure, Clock::now() - asked);
    return waitAfterFailure(failure);
  } catch (const std::exception& failure) {
    // Out of memory or threads, for the moment perhaps.
    return waitAfterFailure(failure);
  }
  // A job that arrives while we stop is left alone: unacknowledged, it is offered again.
  if (stopping_.isSet()) return PollOutcome::ended;
  if (std::exchange(isRetrying_, false)) {
    if (const auto observer = observer_.lock()) observer->driverRecovered();
  }
  retryDelay_ = options_.timings.pollRetryFirst;
  return reply && accept(std::move(*reply)) ? PollOutcome::served : PollOutcome::empty;
}

void Driver::learnFrom(const ServerError& failure, Duration waited) {
  if (!mayBeForItsWait(failure.cause())) return;
  if (const auto news = pollWait_.endedByProxy(waited)) log_->warn(*news);
}

Driver::PollOutcome Driver::waitAfterFailure(const std::exception& failure) {
  if (stopping_.isSet() || tokenRevoked_.isSet()) return PollOutcome::ended;
  const std::string message = fmt::format("poll failed ({})", failure.what());
  const double seconds = toSeconds(retryDelay_);
  log_->warn(
      fmt::format("{}; retrying in {}s", forLog(message), static_cast<std::int64_t>(seconds)));
  isRetrying_ = true;
  if (const auto observer = observer_.lock()) observer->driverRetrying(message, seconds);
  pause(retryDelay_);
  if (stopping_.isSet()) return PollOutcome::ended;
  retryDelay_ = std::min(2 * retryDelay_, options_.timings.pollRetryLongest);
  return PollOutcome::served;
}

/// Waits, as the serve loop may: alive, and until the run stops.
void Driver::pause(Duration duration) const {
  const auto end = Clock::now() + duration;
  for (auto left = duration; left > Duration::zero(); left = end - Clock::now()) {
    if (stopping_.waitFor(std::min(left, options_.timings.aliveInterval))) return;
    reportAlive();
  }
}

void Driver::reportAlive() const {
  browser_->confirmGroups();
  if (const auto observer = observer_.lock()) observer->driverIsAlive();
}

void Driver::reportStopping() const {
  if (const auto observer = observer_.lock()) observer->driverStopping();
}

/// Starts the job that a poll brought. False when it brought none.
bool Driver::accept(JsonReading reply) {
  JV object = reply.value.take("job");
  if (!object.asObject() || object.asObject()->empty()) return false;
  auto job = Job::from(std::move(object));
  if (!job) {
    log_->warn("poll returned a job without a usable job_id — ignoring it");
    return false;
  }
  if (reply.defect) {
    log_->warn(fmt::format("job {}: unreadable ({}) — refusing", job->id, forLog(*reply.defect)));
    return false;
  }
  const std::int64_t id = job->id;
  const std::string lane = job->lane;
  const auto worker = std::make_shared<Worker>(shared_from_this(), std::move(*job));
  if (!jobs_->add(worker)) {
    log_->warn(fmt::format("job {}: lane {} already busy here — refusing", id, forLog(lane)));
    return false;
  }
  try {
    worker->start();
  } catch (const std::system_error& error) {
    // Out of threads. Unacknowledged, the job is offered again, here or elsewhere.
    log_->error(fmt::format("job {}: cannot start a thread: {}", id, error.what()));
    workerDone(*worker);
    stopping_.waitFor(options_.timings.emptyPollPause);
  }
  return true;
}

void Driver::stop() {
  stopping_.set();
  browser_->beginStopping();
  spaces_->interrupt();
  slotFree_.set();
}

void Driver::killJobsNow() {
  jobs_->killAllNow();
  browser_->killNow();
}

void Driver::tokenWasRevoked() {
  tokenRevoked_.set();
  slotFree_.set();
  api_->stopPolling();
}

ExitReason Driver::shutdown() {
  reportStopping();
  const bool wasAsked = stopping_.isSet();
  stop();
  api_->stopPolling();  // no job waits for its files any more
  // A post that waits for its answer since before would wait for longer than is left now.
  if (!wasAsked) api_->cancelAll();
  jobs_->killAll(options_.timings.termination);
  jobs_->waitForAll(options_.timings.shutdownPerWorker);
  spaces_->waitForReaper(options_.timings.shutdownPerWorker);
  spaces_->sweepAtEnd();
  if (tokenRevoked_.isSet()) {
    log_->error(DriverConstants::tokenRevokedMessage);
    return ExitReason::tokenRevoked(DriverConstants::tokenRevokedMessage);
  }
  if (outOfDate_.isSet()) {
    log_->error(DriverConstants::outOfDateHint);
    return ExitReason::outOfDate(DriverConstants::outOfDateHint);
  }
  return ExitReason::stopped();
}

void Driver::workerDone(Worker& worker) {
  jobs_->remove(worker);
  slotFree_.set();
}

std::shared_ptr<HttpSession> Driver::providerSession() {
  MutexLock lock(providerLock_);
  if (!providerSession_) {
    providerSession_ = std::make_shared<HttpSession>(options_.providerSession);
  }
  return providerSession_;
}

}  // namespace verdo
