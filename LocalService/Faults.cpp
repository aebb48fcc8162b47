#include "LocalService/Faults.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

namespace verdo::local {
namespace {

constexpr std::array<std::string_view, 12> kEndpoints{
    "any",  "hello",  "poll",       "lines",     "complete", "files",
    "chat", "models", "pair-start", "pair-poll", "approve",  "manifest"};

}  // namespace

Fault bodyLimit(std::string endpoint, std::size_t bytes) {
  return {.endpoint = std::move(endpoint),
          .bodyOver = bytes,
          .reply = FaultReply{
              .status = 413,
              .body = "<html><head><title>413 Request Entity Too Large</title></head></html>\r\n",
              .headers = {{"Content-Type", "text/html"}}}};
}

std::uint64_t Faults::add(Fault fault) {
  if (!(fault.probability >= 0 && fault.probability <= 1)) {
    throw std::invalid_argument("a fault's probability must be from 0 to 1");
  }
  if (std::ranges::find(kEndpoints, fault.endpoint) == kEndpoints.end()) {
    std::string message = "there is no endpoint \"" + fault.endpoint + "\"; known are";
    for (const auto name : kEndpoints) message.append(" ").append(name);
    throw std::invalid_argument(message);
  }
  if (fault.delay.count() < 0 || fault.delay > std::chrono::hours(24)) {
    throw std::invalid_argument("a fault's delay must be from 0 to a day");
  }
  if (fault.bytesPerSecond == 0) {
    throw std::invalid_argument("a fault's bytes per second must be at least 1");
  }
  if (fault.reply && (fault.reply->status < 200 || fault.reply->status > 599)) {
    throw std::invalid_argument("a fault's status must be from 200 to 599");
  }
  const MutexLock lock(mutex_);
  entries_.push_back(Entry{.id = nextId_, .fault = std::move(fault)});
  return nextId_++;
}

std::optional<std::pair<std::uint64_t, Fault>> Faults::pick(std::string_view endpoint,
                                                            std::optional<std::int64_t> jobId,
                                                            std::size_t bodySize) {
  const MutexLock lock(mutex_);
  for (auto& entry : entries_) {
    const auto& fault = entry.fault;
    if (entry.cleared || (fault.endpoint != "any" && fault.endpoint != endpoint)) continue;
    if (fault.jobId && fault.jobId != jobId) continue;
    if (fault.bodyOver && bodySize <= *fault.bodyOver) continue;
    if (fault.count && entry.hits >= *fault.count) continue;
    if (fault.probability < 1 &&
        std::uniform_real_distribution<double>(0, 1)(random_) >= fault.probability) {
      continue;
    }
    if (entry.seen++ < fault.after) continue;
    ++entry.hits;
    return std::pair(entry.id, fault);
  }
  return std::nullopt;
}

std::vector<FaultStatus> Faults::list() const {
  std::vector<FaultStatus> all;
  const MutexLock lock(mutex_);
  for (const auto& entry : entries_) {
    if (!entry.cleared) all.push_back({entry.id, entry.fault, entry.hits});
  }
  return all;
}

std::uint64_t Faults::hits(std::uint64_t id) const {
  const MutexLock lock(mutex_);
  const auto found = std::ranges::find(entries_, id, &Entry::id);
  return found == entries_.end() ? 0 : found->hits;
}

bool Faults::clear(std::uint64_t id) {
  const MutexLock lock(mutex_);
  const auto found = std::ranges::find(entries_, id, &Entry::id);
  if (found == entries_.end() || found->cleared) return false;
  found->cleared = true;
  return true;
}

void Faults::clearAll() {
  const MutexLock lock(mutex_);
  for (auto& entry : entries_) entry.cleared = true;
}

}  // namespace verdo::local
