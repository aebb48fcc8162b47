#include "VerdoDriverCore/Run/Driver.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/System/ThreadName.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>

namespace verdo {
namespace {

/// LLM jobs take no lane: they only wait for the provider.
bool takesLane(const Job& job) { return job.kind != "llm"; }

constexpr std::int32_t code(ExitReason::Kind kind) { return static_cast<std::int32_t>(kind); }

}  // namespace

Driver::Driver(Options options, std::shared_ptr<Api> api, std::shared_ptr<LogSink> log,
               std::shared_ptr<Browser> browser, std::weak_ptr<DriverObserver> observer)
    : options_(std::move(options)),
      api_(std::move(api)),
      log_(std::move(log)),
      browser_(std::move(browser)),
      observer_(std::move(observer)) {}

std::int32_t Driver::serve(std::optional<int> serveJobs, std::optional<Duration> idleExit) {
  startReaper();
  {
    MutexLock lock(guardLock_);
    lastActivity_ = Clock::now();  // what came before, a long sweep say, is no idleness
  }
  Duration retryDelay = options_.timings.pollRetryFirst;
  int quickEmptyReplies = 0;
  while (!stopping_.isSet() && !tokenRevoked_.isSet()) {
    if ((hasServed(serveJobs) && isQuiet()) || isIdleFor(idleExit)) {
      stopping_.set();
      reaperEnded_.waitFor(options_.timings.shutdownPerWorker);
      return code(ExitReason::Kind::clean);
    }
    // Once enough were served, the last ones only have to finish.
    if (!hasFreeLane() || hasServed(serveJobs)) {
      slotFree_.waitFor(options_.timings.laneWait);
      slotFree_.clear();
      continue;
    }
    const auto asked = Clock::now();
    const PollOutcome outcome = pollOnce(retryDelay);
    if (outcome == PollOutcome::ended) break;
    const bool quick =
        outcome == PollOutcome::empty && Clock::now() - asked < options_.timings.emptyPollQuick;
    quickEmptyReplies = quick ? quickEmptyReplies + 1 : 0;
    if (quickEmptyReplies >= 2) stopping_.waitFor(options_.timings.emptyPollPause);
  }
  const std::int32_t result = shutdown();
  reaperEnded_.waitFor(options_.timings.shutdownPerWorker);
  return result;
}

/// One poll, its job started if it brought one. A failed poll counts as served once its pause is
/// over: the pause is guard enough.
Driver::PollOutcome Driver::pollOnce(Duration& retryDelay) {
  std::optional<JsonReading> reply;
  try {
    reply = api_->poll(options_.pollWait, busyLanes());
  } catch (const ServerError& failure) {
    switch (failure.kind()) {
      case ServerError::Kind::auth:
        log_->error(failure.what());
        tokenRevoked_.set();
        return PollOutcome::ended;
      case ServerError::Kind::outOfDate:
        log_->error(failure.what());
        outOfDate_.set();
        return PollOutcome::ended;
      case ServerError::Kind::server:
        break;
    }
    return waitAfterFailure(failure, retryDelay) ? PollOutcome::served : PollOutcome::ended;
  }
  // A job that arrives while we stop is left alone: unacknowledged, it is offered again.
  if (stopping_.isSet()) return PollOutcome::ended;
  retryDelay = options_.timings.pollRetryFirst;
  return reply && accept(std::move(*reply)) ? PollOutcome::served : PollOutcome::empty;
}

/// False when the run must end instead of trying again.
bool Driver::waitAfterFailure(const std::exception& failure, Duration& retryDelay) {
  if (stopping_.isSet() || tokenRevoked_.isSet()) return false;
  const std::string message = fmt::format("poll failed ({})", failure.what());
  const double seconds = toSeconds(retryDelay);
  log_->warn(fmt::format("{}; retrying in {}s", message, static_cast<std::int64_t>(seconds)));
  if (const auto observer = observer_.lock()) observer->driverRetrying(message, seconds);
  if (stopping_.waitFor(retryDelay)) return false;
  retryDelay = std::min(2 * retryDelay, options_.timings.pollRetryLongest);
  return true;
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
    log_->warn(fmt::format("job {}: unreadable ({}) — refusing", job->id, *reply.defect));
    return false;
  }
  if (isBusy(job->lane)) {
    log_->warn(fmt::format("job {}: lane {} already busy here — refusing", job->id, job->lane));
    return false;
  }
  startWorker(std::move(*job));
  return true;
}

void Driver::startWorker(Job job) {
  const auto worker = std::make_shared<Worker>(shared_from_this(), std::move(job));
  {
    MutexLock lock(guardLock_);
    const auto& lane = worker->job().lane;
    workers_.emplace(lane, worker);
    busyLanes_.insert(std::lower_bound(busyLanes_.begin(), busyLanes_.end(), lane), lane);
    if (takesLane(worker->job())) ++lanesTaken_;
    ++served_;
    lastActivity_ = Clock::now();
  }
  if (const auto observer = observer_.lock()) {
    observer->driverJobStarted(worker->job().id, worker->job().lane, worker->job().kind);
  }
  reportBusyLanes();
  try {
    worker->start();
  } catch (const std::system_error& error) {
    // Out of threads. Unacknowledged, the job is offered again, here or elsewhere.
    log_->error(fmt::format("job {}: cannot start a thread: {}", worker->job().id, error.what()));
    workerDone(*worker);
    stopping_.waitFor(options_.timings.emptyPollPause);
  }
}

bool Driver::hasServed(std::optional<int> jobs) {
  MutexLock lock(guardLock_);
  return jobs && served_ >= *jobs;
}

bool Driver::isQuiet() {
  MutexLock lock(guardLock_);
  return workers_.empty() && endsBeingReported_ == 0;
}

bool Driver::isIdleFor(std::optional<Duration> limit) {
  if (!limit || *limit <= Duration::zero() || !isQuiet()) return false;
  MutexLock lock(guardLock_);
  return Clock::now() - lastActivity_ > *limit;
}

bool Driver::hasFreeLane() {
  MutexLock lock(guardLock_);
  return lanesTaken_ < options_.maxJobs;
}

void Driver::stop() {
  stopping_.set();
  slotFree_.set();
}

void Driver::killJobsNow() {
  for (const auto& [lane, worker] : workersNow()) worker->killNow();
}

void Driver::tokenWasRevoked() {
  tokenRevoked_.set();
  slotFree_.set();
  api_->stopPolling();
}

std::int32_t Driver::shutdown() {
  stopping_.set();
  api_->stopPolling();  // no job waits for its files any more
  const Workers workers = workersNow();
  // All at once, so that the grace periods of their children overlap. LLM jobs have no child.
  std::vector<std::thread> killers;
  for (const auto& [lane, worker] : workers) {
    if (!takesLane(worker->job())) {
      worker->kill();
    } else {
      killers.emplace_back([&doomed = *worker] { doomed.kill(); });
    }
  }
  for (auto& killer : killers) killer.join();
  for (const auto& [lane, worker] : workers) {
    worker->tornDown().waitFor(options_.timings.shutdownPerWorker);
  }
  sweepSpaces(false);
  if (tokenRevoked_.isSet()) {
    log_->error(DriverConstants::tokenRevokedMessage);
    return code(ExitReason::Kind::tokenRevoked);
  }
  if (outOfDate_.isSet()) {
    log_->error(DriverConstants::outOfDateHint);
    return code(ExitReason::Kind::outOfDate);
  }
  return code(ExitReason::Kind::stopped);
}

void Driver::workerDone(Worker& worker) {
  {
    MutexLock lock(guardLock_);
    const auto entry = workers_.find(worker.job().lane);
    if (entry != workers_.end() && entry->second.get() == &worker) {
      if (takesLane(worker.job())) --lanesTaken_;
      busyLanes_.erase(std::lower_bound(busyLanes_.begin(), busyLanes_.end(), entry->first));
      workers_.erase(entry);
    }
    lastActivity_ = Clock::now();
    ++endsBeingReported_;
  }
  slotFree_.set();
  if (const auto observer = observer_.lock()) {
    observer->driverJobFinished(worker.job().id, worker.job().lane, worker.exitCode().value_or(0),
                                worker.error());
  }
  reportBusyLanes();
  {
    MutexLock lock(guardLock_);
    --endsBeingReported_;
  }
  slotFree_.set();
}

std::shared_ptr<HttpSession> Driver::providerSession() {
  MutexLock lock(guardLock_);
  if (!providerSession_) providerSession_ = std::make_shared<HttpSession>();
  return providerSession_;
}

void Driver::touchSpace(const std::string& name) {
  MutexLock lock(guardLock_);
  spaceSeen_.insert_or_assign(name, Clock::now());
}

void Driver::startReaper() {
  std::thread([self = shared_from_this()] {
    setThreadName("reaper");
    while (!self->stopping_.waitFor(self->options_.reapInterval)) self->reapIdle();
    self->reaperEnded_.set();
  }).detach();
}

void Driver::reapIdle() {
  const auto owned = ownedSpaces();
  std::vector<std::string> closed;
  for (const auto& name : browser_->spaceNames()) {
    if (owned.contains(name) || !options_.spacePattern.isFoundIn(name)) continue;
    {
      MutexLock lock(guardLock_);
      const auto seen = spaceSeen_.try_emplace(name, Clock::now()).first;
      if (Clock::now() - seen->second <= options_.idleClose) continue;
    }
    browser_->closeSpace(name);
    closed.push_back(name);
    MutexLock lock(guardLock_);
    spaceSeen_.erase(name);
  }
  if (!closed.empty()) {
    log_->info(
        fmt::format("idle reaper closed {} space(s): {}", closed.size(), fmt::join(closed, ", ")));
  }
}

std::vector<std::string> Driver::sweepSpaces(bool everything) {
  const auto owned = ownedSpaces();
  std::vector<std::string> closed;
  for (const auto& name : browser_->spaceNames()) {
    if (owned.contains(name)) continue;
    if (!everything && !options_.spacePattern.isFoundIn(name)) continue;
    browser_->closeSpace(name);
    closed.push_back(name);
  }
  if (!closed.empty()) {
    log_->info(fmt::format("closed {} leftover task space(s): {}", closed.size(),
                           fmt::join(closed, ", ")));
  }
  return closed;
}

Driver::Workers Driver::workersNow() {
  MutexLock lock(guardLock_);
  return workers_;
}

std::vector<std::string> Driver::busyLanes() {
  MutexLock lock(guardLock_);
  return busyLanes_;
}

bool Driver::isBusy(const std::string& lane) {
  MutexLock lock(guardLock_);
  return workers_.contains(lane);
}

std::set<std::string> Driver::ownedSpaces() {
  std::set<std::string> spaces;
  for (const auto& [lane, worker] : workersNow()) {
    if (worker->job().taskSpace) spaces.insert(*worker->job().taskSpace);
  }
  return spaces;
}

void Driver::reportBusyLanes() {
  const auto observer = observer_.lock();
  if (!observer) return;
  observer->driverBusyLanesChanged(busyLanes());
}

}  // namespace verdo
