#include "VerdoDriver/Model/SystemClock.h"

#include <QTimer>
#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

namespace verdo {

using std::chrono::nanoseconds;

/// What waits, in the order of its end, and the one timer that is set for the first of it.
class SystemClock::Waits : public std::enable_shared_from_this<Waits> {
 public:
  using Key = std::pair<nanoseconds, std::uint64_t>;  ///< the end, and the number of the wait

  explicit Waits(Uptime uptime) : uptime_(std::move(uptime)), timer_(new QTimer) {
    timer_->setSingleShot(true);
    timer_->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer_, &QTimer::timeout, timer_, [this] { runDue(); });
  }
  ~Waits() {
    timer_->disconnect();
    timer_->deleteLater();  // this may be within its signal
  }
  Waits(const Waits&) = delete;
  Waits& operator=(const Waits&) = delete;

  Key add(nanoseconds delay, std::function<void()> block) {
    const Key key{uptime_() + delay, ++last_};
    pending_.emplace(key, std::move(block));
    arm();
    return key;
  }
  void remove(const Key& key) { pending_.erase(key); }
  void clear() { pending_.clear(); }

  void runDue() {
    const auto self = shared_from_this();  // a block may let go of the clock
    // What a block adds waits for its turn, or one that adds another at once would never end.
    const Key end{uptime_(), last_};
    for (auto next = pending_.begin(); next != pending_.end() && next->first.first <= end.first;) {
      if (next->first.second > end.second) {
        ++next;
        continue;
      }
      const auto block = pending_.extract(next);
      block.mapped()();
      next = pending_.begin();  // the block may have removed any
    }
    arm();
  }

 private:
  void arm() {
    if (pending_.empty()) return timer_->stop();
    // Far below what the timer can hold; it is then set again.
    constexpr nanoseconds kMaxTimer = std::chrono::hours(24);
    const auto delay = std::clamp(pending_.begin()->first.first - uptime_(), {}, kMaxTimer);
    timer_->start(std::chrono::ceil<std::chrono::milliseconds>(delay));
  }

  const Uptime uptime_;
  QTimer* const timer_;
  std::map<Key, std::function<void()>> pending_;
  std::uint64_t last_ = 0;
};

SystemClock::SystemClock(Uptime uptime)
    : uptime_(std::move(uptime)),
      startDate_(std::chrono::system_clock::now()),
      startUptime_(uptime_()),
      waits_(std::make_shared<Waits>(uptime_)) {}

SystemClock::~SystemClock() { waits_->clear(); }

Clock::TimePoint SystemClock::now() const {
  return startDate_ + std::chrono::duration_cast<TimePoint::duration>(uptime_() - startUptime_);
}

std::shared_ptr<ClockToken> SystemClock::after(Duration delay, std::function<void()> block) {
  constexpr Duration kMaxDelay = std::chrono::years(100);  // so that its end can be told
  const auto key = waits_->add(std::clamp(delay, Duration::zero(), kMaxDelay), std::move(block));
  return std::make_shared<ClockToken>([waits = std::weak_ptr(waits_), key] {
    if (const auto all = waits.lock()) all->remove(key);
  });
}

void SystemClock::catchUp() { waits_->runDue(); }

}  // namespace verdo
