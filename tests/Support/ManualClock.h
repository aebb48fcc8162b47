#pragma once

#include "VerdoDriver/Model/Clock.h"

#include <algorithm>
#include <map>
#include <utility>

namespace verdo::test {

/// A clock that stands still until it is told to go on.
class ManualClock : public Clock, public std::enable_shared_from_this<ManualClock> {
 public:
  TimePoint now() const override { return now_; }
  std::shared_ptr<ClockToken> after(Duration delay, std::function<void()> block) override {
    const std::pair key(now_ + asTime(delay), ++lastID_);
    pending_.emplace(key, std::move(block));
    return std::make_shared<ClockToken>([weak = weak_from_this(), key] {
      if (const auto self = weak.lock()) self->pending_.erase(key);
    });
  }

  /// Moves on, running on the way what falls due, in the order of time and then of scheduling.
  void advance(Duration time) {
    const auto target = now_ + asTime(time);
    while (!pending_.empty() && pending_.begin()->first.first <= target) {
      const auto next = pending_.extract(pending_.begin());
      now_ = std::max(now_, next.key().first);
      next.mapped()();
    }
    now_ = target;
  }
  std::size_t pendingCount() const { return pending_.size(); }

 private:
  static TimePoint::duration asTime(Duration time) {
    return std::chrono::duration_cast<TimePoint::duration>(time);
  }

  TimePoint now_{std::chrono::hours(24 * 20'000)};
  int lastID_ = 0;
  std::map<std::pair<TimePoint, int>, std::function<void()>> pending_;
};

}  // namespace verdo::test
