#pragma once

#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <thread>
#include <vector>

namespace verdo::local {

/// A thread for each task, however many run at once; a thread whose task is over takes the next
/// one, and ends when none comes for a while. Every signal is blocked in these threads: the
/// program's own threads handle signals, and a broken connection cannot raise SIGPIPE against the
/// process.
class ThreadCache {
 public:
  /// How long a thread without a task is kept: longer than the pauses within a burst of connects,
  /// short enough that the stacks of a thousand are not held for ever.
  static constexpr std::chrono::milliseconds kMaxIdle{10'000};

  explicit ThreadCache(std::chrono::milliseconds maxIdle = kMaxIdle) : maxIdle_(maxIdle) {}
  ~ThreadCache() { join(); }
  ThreadCache(const ThreadCache&) = delete;
  ThreadCache& operator=(const ThreadCache&) = delete;

  /// From any thread. Throws std::system_error when no thread can be made.
  void run(std::function<void()> task);
  /// Waits for the tasks, ends the threads. The cache can be used again afterwards.
  void join();

 private:
  void work();
  /// Absent: this thread shall end.
  std::function<void()> nextTask();
  std::vector<std::thread> takeEnded();
  std::vector<std::thread> takeAll();

  const std::chrono::milliseconds maxIdle_;
  Mutex mutex_;
  Condition wake_;
  std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);
  std::map<std::thread::id, std::thread> threads_ GUARDED_BY(mutex_);
  std::vector<std::thread> ended_ GUARDED_BY(mutex_);  // idle for too long; to be joined
  std::size_t idle_ GUARDED_BY(mutex_) = 0;
  bool ending_ GUARDED_BY(mutex_) = false;
};

}  // namespace verdo::local
