#include "LocalService/LaneQueue.h"

#include <algorithm>

namespace verdo::local {

void LaneQueue::enqueue(std::int64_t job, const std::string& lane) {
  auto& entry = lanes_[lane];
  entry.queued.insert(job);
  update(lane, entry);
  wakePolls();
}

void LaneQueue::remove(std::int64_t job, const std::string& lane) {
  auto& entry = lanes_.at(lane);
  entry.queued.erase(job);
  update(lane, entry);
  wakePolls();
}

std::optional<std::int64_t> LaneQueue::take(const std::set<std::string>& busyLanes) {
  const auto found = std::ranges::find_if(
      ready_, [&](const auto& entry) { return !busyLanes.contains(entry.second); });
  if (found == ready_.end()) return std::nullopt;
  const auto [job, name] = *found;
  auto& lane = lanes_.at(name);
  lane.queued.erase(job);
  lane.leased = true;
  update(name, lane);
  wakePolls();
  return job;
}

void LaneQueue::release(const std::string& lane) {
  auto& entry = lanes_.at(lane);
  entry.leased = false;
  update(lane, entry);
  wakePolls();
}

void LaneQueue::update(const std::string& name, Lane& lane) {
  if (lane.readyAs != 0) ready_.erase(lane.readyAs);
  lane.readyAs = lane.leased || lane.queued.empty() ? 0 : *lane.queued.begin();
  if (lane.readyAs != 0) {
    ready_.emplace(lane.readyAs, name);
  } else if (!lane.leased) {
    lanes_.erase(std::string(name));
  }
}

void LaneQueue::wakePolls() {
  auto asleep = std::ranges::count_if(polls_, [](const Poll* poll) { return !poll->notified; });
  for (const auto& [job, lane] : ready_) {
    if (asleep == 0) return;
    const auto taker = std::ranges::find_if(polls_, [&wanted = lane](const Poll* poll) {
      return !poll->notified && !poll->busyLanes.contains(wanted);
    });
    if (taker == polls_.end()) continue;
    (*taker)->notified = true;
    (*taker)->event.set();
    --asleep;
  }
}

void LaneQueue::clear() {
  lanes_.clear();
  ready_.clear();
}

void LaneQueue::add(Poll& poll) { polls_.push_back(&poll); }

void LaneQueue::remove(Poll& poll) {
  std::erase(polls_, &poll);
  // It may have been woken for a job that it did not take.
  if (poll.notified) wakePolls();
}

}  // namespace verdo::local
