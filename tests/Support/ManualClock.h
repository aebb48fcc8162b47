#pragma once

#include "VerdoDriver/Model/Clock.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace verdo::test {

/// A clock that stands still until it is told to go on.
class ManualClock : public Clock, public std::enable_shared_from_this<ManualClock> {
 public:
  TimePoint now() const override { return now_; }
  std::shared_ptr<ClockToken> after(Duration delay, std::function<void()> block) override {
    const auto id = ++lastID_;
    pending_.push_back({now_ + asTime(delay), id, std::move(block)});
    return std::make_shared<ClockToken>([weak = weak_from_this(), id] {
      const auto self = weak.lock();
      if (!self) return;
      std::erase_if(self->pending_, [id](const Pending& entry) { return entry.id == id; });
    });
  }

  /// Moves on, running on the way what falls due, in the order of time and then of scheduling.
  void advance(Duration time) {
    const auto target = now_ + asTime(time);
    for (;;) {
      const auto next = std::min_element(pending_.begin(), pending_.end(),
                                         [](const Pending& a, const Pending& b) {
                                           return std::pair(a.at, a.id) < std::pair(b.at, b.id);
                                         });
      if (next == pending_.end() || next->at > target) break;
      now_ = std::max(now_, next->at);
      const auto block = std::move(next->block);
      pending_.erase(next);
      block();
    }
    now_ = target;
  }
  std::size_t pendingCount() const { return pending_.size(); }

 private:
  struct Pending {
    TimePoint at;
    int id;
    std::function<void()> block;
  };
  static TimePoint::duration asTime(Duration time) {
    return std::chrono::duration_cast<TimePoint::duration>(time);
  }

  TimePoint now_{std::chrono::hours(24 * 20'000)};
  int lastID_ = 0;
  std::vector<Pending> pending_;
};

}  // namespace verdo::test
