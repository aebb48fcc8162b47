#pragma once

#include "VerdoDriverCore/System/ThreadSafety.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace verdo {

/// std::mutex with the annotations that clang's thread-safety analysis needs.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  /// For Condition only.
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

/// Holds a Mutex for the length of a scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

/// A condition variable for Mutex. The caller holds the mutex and loops over its own predicate:
/// every wait may wake up spuriously.
class Condition {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  void wait(Mutex& mutex) REQUIRES(mutex);
  /// False when `deadline` passed before a wake-up.
  bool waitUntil(Mutex& mutex, TimePoint deadline) REQUIRES(mutex);
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

/// A flag that threads wait for. Any thread may call any operation.
class Event {
 public:
  /// Raises the flag and wakes every waiter.
  void set();
  /// Lowers the flag.
  void clear();
  bool isSet() const;
  /// Blocks until the flag is up.
  void wait() const;
  /// True as soon as the flag is up, false when `timeout` ran out first (monotonic clock). A
  /// negative timeout only looks.
  bool waitFor(std::chrono::steady_clock::duration timeout) const;

 private:
  mutable Mutex mutex_;
  mutable Condition condition_;
  bool flag_ GUARDED_BY(mutex_) = false;
};

/// A duration given in seconds, as the configuration and the service state them. Values beyond
/// what the clock can hold are cut to about a century; not-a-number counts as zero.
std::chrono::steady_clock::duration fromSeconds(double seconds);

/// The inverse of fromSeconds.
double toSeconds(std::chrono::steady_clock::duration duration);

}  // namespace verdo
