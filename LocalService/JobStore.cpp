#include "LocalService/JobStore.h"

#include <algorithm>
#include <utility>

namespace verdo::local {

using nlohmann::ordered_json;

JobStore::Waiter::Waiter(JobStore& store, std::set<std::string> busyLanes)
    : store_(store), busy_(std::move(busyLanes)) {
  const std::lock_guard lock(store_.mutex_);
  place_ = store_.waiters_.insert(store_.waiters_.end(), this);
}

JobStore::Waiter::~Waiter() {
  const std::lock_guard lock(store_.mutex_);
  store_.waiters_.erase(place_);
  // It may have been woken for a job that it did not take.
  if (notified_) store_.wakeWaiters();
}

void JobStore::Waiter::clear() {
  // Nobody sets the flag while the waiter counts as notified.
  event_.clear();
  const std::lock_guard lock(store_.mutex_);
  notified_ = false;
}

JobStore::JobStore(std::chrono::milliseconds lease)
    : leaseTime_(lease), leaseWatch_([this] { watchLeases(); }) {}

JobStore::~JobStore() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    leasesChanged_.notify_all();
  }
  leaseWatch_.join();
}

std::int64_t JobStore::reserveId() {
  const std::lock_guard lock(mutex_);
  return nextId_++;
}

void JobStore::add(std::int64_t id, const JobSpec& spec, const ordered_json& object) {
  Record record;
  record.snapshot.id = id;
  record.snapshot.kind = spec.kind;
  record.snapshot.cancelled = spec.cancelled;
  record.snapshot.created = Clock::now();
  const auto label = object.find("label");
  if (label != object.end() && label->is_string() &&
      !label->get_ref<const std::string&>().empty()) {
    record.snapshot.lane = label->get<std::string>();
  } else if (label != object.end() && label->is_number() && *label != 0) {
    record.snapshot.lane = label->dump();
  } else {
    record.snapshot.lane = "job-" + std::to_string(id);
  }
  record.body =
      ordered_json{{"job", object}}.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
  record.lines = std::make_shared<LineLog>(spec.keepLines);

  const std::lock_guard lock(mutex_);
  enqueue(jobs_.insert_or_assign(id, std::move(record)).first->second);
  changed();
}

void JobStore::enqueue(Record& record) {
  record.snapshot.state = JobState::queued;
  const auto& name = record.snapshot.lane;
  auto& lane = lanes_[name];
  lane.queued.insert(record.snapshot.id);
  updateLane(name, lane);
  wakeWaiters();
}

void JobStore::updateLane(const std::string& name, Lane& lane) {
  if (lane.readyAs != 0) ready_.erase(lane.readyAs);
  lane.readyAs = lane.leased || lane.queued.empty() ? 0 : *lane.queued.begin();
  if (lane.readyAs != 0) {
    ready_.emplace(lane.readyAs, name);
  } else if (!lane.leased) {
    lanes_.erase(std::string(name));
  }
}

void JobStore::wakeWaiters() {
  auto asleep = std::ranges::count_if(waiters_, [](const Waiter* w) { return !w->notified_; });
  for (const auto& [id, lane] : ready_) {
    if (asleep == 0) return;
    const auto taker = std::ranges::find_if(waiters_, [&wanted = lane](const Waiter* waiter) {
      return !waiter->notified_ && !waiter->busy_.contains(wanted);
    });
    if (taker == waiters_.end()) continue;
    (*taker)->notified_ = true;
    (*taker)->event_.set();
    --asleep;
  }
}

void JobStore::changed() {
  ++version_;
  changed_.notify_all();
}

std::optional<JobStore::Handout> JobStore::lease(const std::set<std::string>& busyLanes) {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find_if(
      ready_, [&](const auto& entry) { return !busyLanes.contains(entry.second); });
  if (found == ready_.end()) return std::nullopt;
  auto& record = jobs_.at(found->first);
  auto& snapshot = record.snapshot;
  auto& lane = lanes_.at(snapshot.lane);
  lane.queued.erase(snapshot.id);
  lane.leased = true;
  updateLane(snapshot.lane, lane);

  snapshot.state = JobState::leased;
  ++snapshot.timesLeased;
  snapshot.leased = Clock::now();
  snapshot.acknowledged.reset();
  record.leasedUntil = *snapshot.leased + leaseTime_;
  ++record.lease;
  leased_.insert(snapshot.id);
  if (record.leasedUntil < nextExpiry_) {
    nextExpiry_ = record.leasedUntil;
    leasesChanged_.notify_all();
  }
  wakeWaiters();
  changed();
  return Handout{snapshot.id, record.lease, record.body};
}

void JobStore::release(Record& record) {
  leased_.erase(record.snapshot.id);
  auto& lane = lanes_.at(record.snapshot.lane);
  lane.leased = false;
  updateLane(record.snapshot.lane, lane);
  wakeWaiters();
}

void JobStore::putBack(const Handout& handout) {
  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find(handout.id);
  if (found == jobs_.end()) return;
  auto& record = found->second;
  if (record.snapshot.state != JobState::leased || record.lease != handout.lease) return;
  --record.snapshot.timesLeased;
  record.snapshot.leased.reset();
  release(record);
  enqueue(record);
  changed();
}

void JobStore::finish(Record& record) {
  record.snapshot.state = JobState::done;
  record.snapshot.finished = Clock::now();
}

JobStore::LinesAnswer JobStore::answerFor(const Record& record) {
  const bool cancelled = record.snapshot.cancelled;
  switch (record.snapshot.state) {
    case JobState::leased:
      return {.ok = true, .cancel = cancelled, .state = "running"};
    case JobState::queued:
      return {.ok = false, .cancel = cancelled, .state = "queued"};
    case JobState::done:
      break;
  }
  return {.ok = false, .cancel = cancelled, .state = "done"};
}

JobStore::LinesAnswer JobStore::lines(std::int64_t id, const LinesBatch& batch) {
  std::shared_ptr<LineLog> log;
  {
    const std::lock_guard lock(mutex_);
    const auto found = jobs_.find(id);
    if (found == jobs_.end()) return {};
    auto& record = found->second;
    if (record.snapshot.state != JobState::leased) return answerFor(record);
    record.leasedUntil = Clock::now() + leaseTime_;
    log = record.lines;
  }
  // Hashing megabytes takes milliseconds: not under the lock of all jobs.
  log->append(batch);

  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end()) return {};
  auto& snapshot = found->second.snapshot;
  const auto now = Clock::now();
  ++snapshot.linesPosts;
  if (!snapshot.acknowledged) snapshot.acknowledged = now;
  if (!batch.ends.empty()) {
    if (!snapshot.firstLine) snapshot.firstLine = now;
    snapshot.lastLine = now;
  }
  changed();
  return answerFor(found->second);
}

JobStore::LinesAnswer JobStore::complete(std::int64_t id, std::int64_t exitCode,
                                         std::optional<std::string> error) {
  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end()) return {};
  auto& record = found->second;
  auto& snapshot = record.snapshot;
  ++snapshot.completePosts;
  auto answer = answerFor(record);
  if (snapshot.state == JobState::leased) {
    snapshot.completed = true;
    snapshot.exitCode = exitCode;
    snapshot.error = std::move(error);
    finish(record);
    release(record);
    answer.state = "done";
  }
  changed();
  return answer;
}

bool JobStore::cancel(std::int64_t id) {
  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end() || found->second.snapshot.state == JobState::done) return false;
  auto& record = found->second;
  record.snapshot.cancelled = true;
  if (record.snapshot.state == JobState::queued) {
    auto& lane = lanes_.at(record.snapshot.lane);
    lane.queued.erase(id);
    updateLane(record.snapshot.lane, lane);
    finish(record);
    wakeWaiters();
  }
  changed();
  return true;
}

JobSnapshot JobStore::snapshotOf(const Record& record) const {
  auto snapshot = record.snapshot;
  auto totals = record.lines->totals();
  snapshot.lineCount = totals.lines;
  snapshot.lineBytes = totals.bytes;
  snapshot.linesSha256 = std::move(totals.sha256);
  return snapshot;
}

std::optional<JobSnapshot> JobStore::job(std::int64_t id) const {
  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end()) return std::nullopt;
  return snapshotOf(found->second);
}

std::vector<JobSnapshot> JobStore::jobs() const {
  std::vector<JobSnapshot> all;
  const std::lock_guard lock(mutex_);
  all.reserve(jobs_.size());
  for (const auto& [id, record] : jobs_) all.push_back(snapshotOf(record));
  return all;
}

std::shared_ptr<const LineLog> JobStore::lineLog(std::int64_t id) const {
  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find(id);
  return found == jobs_.end() ? nullptr : found->second.lines;
}

bool JobStore::allDone() const {
  const std::lock_guard lock(mutex_);
  return lanes_.empty();
}

bool JobStore::waitUntil(const std::function<bool()>& done, Clock::time_point deadline) const {
  std::unique_lock lock(mutex_);
  while (true) {
    const auto seen = version_;
    lock.unlock();
    if (done()) return true;
    lock.lock();
    changed_.wait_until(lock, deadline, [&] { return version_ != seen || interrupted_; });
    if (version_ == seen || interrupted_) return false;
    if (Clock::now() >= deadline) {
      lock.unlock();
      return done();
    }
  }
}

void JobStore::setLease(std::chrono::milliseconds lease) {
  const std::lock_guard lock(mutex_);
  leaseTime_ = lease;
}

void JobStore::clear() {
  const std::lock_guard lock(mutex_);
  jobs_.clear();
  leased_.clear();
  lanes_.clear();
  ready_.clear();
  changed();
}

void JobStore::interrupt() {
  const std::lock_guard lock(mutex_);
  interrupted_ = true;
  changed_.notify_all();
}

void JobStore::resume() {
  const std::lock_guard lock(mutex_);
  interrupted_ = false;
}

void JobStore::watchLeases() {
  std::unique_lock lock(mutex_);
  while (!ending_) {
    const auto now = Clock::now();
    nextExpiry_ = Clock::time_point::max();
    const auto leased = leased_;
    for (const auto id : leased) {
      auto& record = jobs_.at(id);
      if (record.leasedUntil > now) {
        nextExpiry_ = std::min(nextExpiry_, record.leasedUntil);
        continue;
      }
      release(record);
      // A driver that was told to cancel may drop a job without a word: nobody else shall run it.
      if (record.snapshot.cancelled) {
        finish(record);
      } else {
        enqueue(record);
      }
      changed();
    }
    if (nextExpiry_ == Clock::time_point::max()) {
      leasesChanged_.wait(lock);
    } else {
      // By value: the wait must not look at a member that changes while the lock is free.
      const auto until = nextExpiry_;
      leasesChanged_.wait_until(lock, until);
    }
  }
}

}  // namespace verdo::local
