#include "LocalService/RequestLog.h"

#include "LocalService/Deadline.h"

#include <algorithm>
#include <utility>

#include <strings.h>

namespace verdo::local {

std::optional<std::string> RequestRecord::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

std::uint64_t RequestLog::arrived(RequestRecord record, std::string_view body) {
  record.body = body.substr(0, limits_.bodyBytes);
  const MutexLock lock(mutex_);
  record.sequence = nextSequence_++;
  bodyBytes_ += record.body.size();
  for (const auto& name : {record.endpoint, std::string()}) {
    auto& endpoint = endpoints_[name];
    ++endpoint.arrived;
    endpoint.maxInFlight = std::max(endpoint.maxInFlight, ++endpoint.inFlight);
    endpoint.kept.push_back(record.sequence);
  }
  records_.push_back(std::move(record));
  dropExcess();
  changed_.notifyAll();
  return nextSequence_ - 1;
}

void RequestLog::dropExcess() {
  const auto first = nextSequence_ - records_.size();
  bodiesFrom_ = std::max(bodiesFrom_, first);
  while (bodyBytes_ > limits_.totalBodyBytes && bodiesFrom_ < nextSequence_) {
    auto& record = records_[bodiesFrom_++ - first];
    bodyBytes_ -= record.body.size();
    record.body = std::string();
  }
  while (records_.size() > limits_.entries) {
    leftFlight(records_.front());
    bodyBytes_ -= records_.front().body.size();
    endpoints_[records_.front().endpoint].kept.pop_front();
    endpoints_[""].kept.pop_front();
    records_.pop_front();
  }
}

void RequestLog::leftFlight(const RequestRecord& record) {
  if (record.replied || record.hungUp) return;  // it had left before
  --endpoints_[record.endpoint].inFlight;
  --endpoints_[""].inFlight;
}

RequestRecord* RequestLog::kept(std::uint64_t sequence) {
  const auto first = nextSequence_ - records_.size();
  return sequence < first || sequence >= nextSequence_ ? nullptr : &records_[sequence - first];
}

void RequestLog::faultApplied(std::uint64_t sequence, std::uint64_t fault) {
  const MutexLock lock(mutex_);
  if (auto* record = kept(sequence)) record->fault = fault;
}

void RequestLog::replied(std::uint64_t sequence, int status) {
  const MutexLock lock(mutex_);
  auto* record = kept(sequence);
  if (record == nullptr) return;
  leftFlight(*record);
  record->status = status;
  record->replied = RequestRecord::Clock::now();
  changed_.notifyAll();
}

void RequestLog::hungUp(std::uint64_t sequence) {
  const MutexLock lock(mutex_);
  auto* record = kept(sequence);
  if (record == nullptr || record->hungUp) return;
  leftFlight(*record);
  record->hungUp = RequestRecord::Clock::now();
  record->replied.reset();
  record->status = 0;
  ++endpoints_[record->endpoint].hungUp;
  ++endpoints_[""].hungUp;
  changed_.notifyAll();
}

std::vector<RequestRecord> RequestLog::list(std::string_view endpoint) const {
  std::vector<RequestRecord> found;
  const MutexLock lock(mutex_);
  for (const auto& record : records_) {
    if (endpoint.empty() || record.endpoint == endpoint) found.push_back(record);
  }
  return found;
}

std::uint64_t RequestLog::arrivedOn(const std::string& endpoint) const {
  const auto found = endpoints_.find(endpoint);
  return found == endpoints_.end() ? 0 : found->second.arrived;
}

std::uint64_t RequestLog::hungUpOn(const std::string& endpoint) const {
  const auto found = endpoints_.find(endpoint);
  return found == endpoints_.end() ? 0 : found->second.hungUp;
}

std::uint64_t RequestLog::count(const std::string& endpoint) const {
  const MutexLock lock(mutex_);
  return arrivedOn(endpoint);
}

std::uint64_t RequestLog::inFlight(const std::string& endpoint) const {
  const MutexLock lock(mutex_);
  const auto found = endpoints_.find(endpoint);
  return found == endpoints_.end() ? 0 : found->second.inFlight;
}

std::uint64_t RequestLog::maxInFlight(const std::string& endpoint) const {
  const MutexLock lock(mutex_);
  const auto found = endpoints_.find(endpoint);
  return found == endpoints_.end() ? 0 : found->second.maxInFlight;
}

const RequestRecord* RequestLog::find(const std::string& endpoint, std::uint64_t n) const {
  const auto found = endpoints_.find(endpoint);
  if (found == endpoints_.end()) return nullptr;
  const auto& kept = found->second.kept;
  const auto arrived = found->second.arrived;
  const auto dropped = arrived - kept.size();
  if (n <= dropped || n > arrived) return nullptr;
  return &records_[kept[n - dropped - 1] - (nextSequence_ - records_.size())];
}

const RequestRecord* RequestLog::findOver(const std::string& endpoint, std::uint64_t n) const {
  const auto* record = find(endpoint, n);
  return record != nullptr && (record->replied || record->hungUp) ? record : nullptr;
}

std::optional<RequestRecord> RequestLog::waitFor(const std::string& endpoint, std::uint64_t n,
                                                 Milliseconds timeout) const {
  const auto deadline = deadlineAfter(timeout);
  const MutexLock lock(mutex_);
  while (!interrupted_ && arrivedOn(endpoint) < n) {
    if (!changed_.waitUntil(mutex_, deadline)) break;
  }
  const auto* record = find(endpoint, n);
  return record == nullptr ? std::nullopt : std::optional(*record);
}

std::optional<RequestRecord> RequestLog::waitForReply(const std::string& endpoint, std::uint64_t n,
                                                      Milliseconds timeout) const {
  const auto deadline = deadlineAfter(timeout);
  const MutexLock lock(mutex_);
  while (!interrupted_ && findOver(endpoint, n) == nullptr) {
    if (!changed_.waitUntil(mutex_, deadline)) break;
  }
  const auto* record = findOver(endpoint, n);
  return record == nullptr ? std::nullopt : std::optional(*record);
}

bool RequestLog::waitForHangUps(const std::string& endpoint, std::uint64_t n,
                                Milliseconds timeout) const {
  const auto deadline = deadlineAfter(timeout);
  const MutexLock lock(mutex_);
  while (!interrupted_ && hungUpOn(endpoint) < n) {
    if (!changed_.waitUntil(mutex_, deadline)) break;
  }
  return hungUpOn(endpoint) >= n;
}

void RequestLog::clear() {
  const MutexLock lock(mutex_);
  records_.clear();
  endpoints_.clear();
  bodyBytes_ = 0;
  bodiesFrom_ = nextSequence_;
}

void RequestLog::interrupt() {
  const MutexLock lock(mutex_);
  interrupted_ = true;
  changed_.notifyAll();
}

void RequestLog::resume() {
  const MutexLock lock(mutex_);
  interrupted_ = false;
}

}  // namespace verdo::local
