#include "VerdoDriverCore/System/Sync.h"

#include <algorithm>
#include <cmath>

namespace verdo {

void Condition::wait(Mutex& mutex) {
  std::unique_lock lock(mutex.native(), std::adopt_lock);
  condition_.wait(lock);
  lock.release();
}

bool Condition::waitUntil(Mutex& mutex, TimePoint deadline) {
  std::unique_lock lock(mutex.native(), std::adopt_lock);
  const bool woken = condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
  lock.release();
  return woken;
}

void Event::set() {
  MutexLock lock(mutex_);
  flag_ = true;
  // Under the lock, so that a waiter that owns the event may destroy it once it has seen the flag.
  condition_.notifyAll();
}

void Event::clear() {
  MutexLock lock(mutex_);
  flag_ = false;
}

bool Event::isSet() const {
  MutexLock lock(mutex_);
  return flag_;
}

void Event::wait() const {
  MutexLock lock(mutex_);
  while (!flag_) condition_.wait(mutex_);
}

bool Event::waitFor(std::chrono::steady_clock::duration timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  MutexLock lock(mutex_);
  while (!flag_) {
    if (!condition_.waitUntil(mutex_, deadline)) return flag_;
  }
  return true;
}

std::chrono::steady_clock::duration fromSeconds(double seconds) {
  constexpr double kCentury = 100.0 * 365 * 24 * 3600;
  if (std::isnan(seconds)) seconds = 0;
  seconds = std::clamp(seconds, -kCentury, kCentury);
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
}

double toSeconds(std::chrono::steady_clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

}  // namespace verdo
