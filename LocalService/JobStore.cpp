#include "LocalService/JobStore.h"

#include <algorithm>
#include <utility>

namespace verdo::local {

using nlohmann::ordered_json;

JobStore::Waiter::Waiter(JobStore& store, std::set<std::string> busyLanes)
    : store_(store), poll_{.busyLanes = std::move(busyLanes), .event = {}} {
  const MutexLock lock(store_.mutex_);
  store_.lanes_.add(poll_);
}

JobStore::Waiter::~Waiter() {
  const MutexLock lock(store_.mutex_);
  store_.lanes_.remove(poll_);
}

void JobStore::Waiter::clear() {
  // Nobody sets the flag while the poll counts as notified.
  poll_.event.clear();
  const MutexLock lock(store_.mutex_);
  poll_.notified = false;
}

JobStore::JobStore(std::chrono::milliseconds lease)
    : leaseTime_(lease), leaseWatch_([this] { watchLeases(); }) {}

JobStore::~JobStore() {
  {
    const MutexLock lock(mutex_);
    ending_ = true;
    leasesChanged_.notifyAll();
  }
  leaseWatch_.join();
}

std::int64_t JobStore::reserveId() {
  const MutexLock lock(mutex_);
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

  const MutexLock lock(mutex_);
  enqueue(jobs_.insert_or_assign(id, std::move(record)).first->second);
  changed();
}

void JobStore::enqueue(Record& record) {
  record.snapshot.state = JobState::queued;
  lanes_.enqueue(record.snapshot.id, record.snapshot.lane);
}

void JobStore::changed() {
  ++version_;
  changed_.notifyAll();
}

std::optional<JobStore::Handout> JobStore::lease(const std::set<std::string>& busyLanes) {
  const MutexLock lock(mutex_);
  const auto id = lanes_.take(busyLanes);
  if (!id) return std::nullopt;
  auto& record = jobs_.at(*id);
  auto& snapshot = record.snapshot;
  snapshot.state = JobState::leased;
  ++snapshot.timesLeased;
  snapshot.leased = Clock::now();
  snapshot.acknowledged.reset();
  record.leasedUntil = *snapshot.leased + leaseTime_;
  ++record.lease;
  leased_.insert(snapshot.id);
  if (record.leasedUntil < nextExpiry_) {
    nextExpiry_ = record.leasedUntil;
    leasesChanged_.notifyAll();
  }
  changed();
  return Handout{snapshot.id, record.lease, record.body};
}

void JobStore::release(Record& record) {
  leased_.erase(record.snapshot.id);
  lanes_.release(record.snapshot.lane);
}

void JobStore::putBack(const Handout& handout) {
  const MutexLock lock(mutex_);
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

JobStore::LinesAnswer JobStore::lines(std::int64_t id, const LinesBatch& batch,
                                      std::uint64_t request) {
  std::shared_ptr<LineLog> log;
  {
    const MutexLock lock(mutex_);
    const auto found = jobs_.find(id);
    if (found == jobs_.end()) return {};
    auto& record = found->second;
    if (record.snapshot.state != JobState::leased) return answerFor(record);
    record.leasedUntil = Clock::now() + leaseTime_;
    log = record.lines;
  }
  // Hashing megabytes takes milliseconds: not under the lock of all jobs.
  log->append(batch, request);

  const MutexLock lock(mutex_);
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
  const MutexLock lock(mutex_);
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
  const MutexLock lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end() || found->second.snapshot.state == JobState::done) return false;
  auto& record = found->second;
  record.snapshot.cancelled = true;
  if (record.snapshot.state == JobState::queued) {
    lanes_.remove(id, record.snapshot.lane);
    finish(record);
  }
  changed();
  return true;
}

JobSnapshot JobStore::snapshotOf(const Record& record) {
  auto snapshot = record.snapshot;
  auto totals = record.lines->totals();
  snapshot.lineCount = totals.lines;
  snapshot.lineBytes = totals.bytes;
  snapshot.linesSha256 = std::move(totals.sha256);
  return snapshot;
}

std::optional<JobSnapshot> JobStore::job(std::int64_t id) const {
  const MutexLock lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end()) return std::nullopt;
  return snapshotOf(found->second);
}

std::vector<JobSnapshot> JobStore::jobs() const {
  std::vector<JobSnapshot> all;
  const MutexLock lock(mutex_);
  all.reserve(jobs_.size());
  for (const auto& [id, record] : jobs_) all.push_back(snapshotOf(record));
  return all;
}

std::shared_ptr<const LineLog> JobStore::lineLog(std::int64_t id) const {
  const MutexLock lock(mutex_);
  const auto found = jobs_.find(id);
  return found == jobs_.end() ? nullptr : found->second.lines;
}

bool JobStore::allDone() const {
  const MutexLock lock(mutex_);
  return lanes_.empty();
}

bool JobStore::waitUntil(const std::function<bool()>& done, Clock::time_point deadline) const {
  while (true) {
    std::uint64_t seen = 0;
    {
      const MutexLock lock(mutex_);
      seen = version_;
    }
    if (done()) return true;
    if (Clock::now() >= deadline) return false;  // changes may come faster than it is asked
    const MutexLock lock(mutex_);
    while (version_ == seen && !interrupted_) {
      if (!changed_.waitUntil(mutex_, deadline)) break;
    }
    if (version_ == seen || interrupted_) return false;
  }
}

void JobStore::setLease(std::chrono::milliseconds lease) {
  const MutexLock lock(mutex_);
  leaseTime_ = lease;
}

void JobStore::clear() {
  const MutexLock lock(mutex_);
  jobs_.clear();
  leased_.clear();
  lanes_.clear();
  changed();
}

void JobStore::interrupt() {
  const MutexLock lock(mutex_);
  interrupted_ = true;
  changed_.notifyAll();
}

void JobStore::resume() {
  const MutexLock lock(mutex_);
  interrupted_ = false;
}

void JobStore::endOverdueLeases(Clock::time_point now) {
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
}

void JobStore::watchLeases() {
  const MutexLock lock(mutex_);
  while (!ending_) {
    endOverdueLeases(Clock::now());
    if (nextExpiry_ == Clock::time_point::max()) {
      leasesChanged_.wait(mutex_);
    } else {
      leasesChanged_.waitUntil(mutex_, nextExpiry_);
    }
  }
}

}  // namespace verdo::local
