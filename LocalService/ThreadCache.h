#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace verdo::local {

/// A thread for each task, however many run at once; a thread whose task is over takes the next
/// one. Every signal is blocked in these threads: the program's own threads handle signals, and a
/// broken connection cannot raise SIGPIPE against the process.
class ThreadCache {
 public:
  ThreadCache() = default;
  ~ThreadCache() { join(); }
  ThreadCache(const ThreadCache&) = delete;
  ThreadCache& operator=(const ThreadCache&) = delete;

  /// From any thread. Throws std::system_error when no thread can be made.
  void run(std::function<void()> task);
  /// Waits for the tasks, ends the threads. The cache can be used again afterwards.
  void join();

 private:
  void work();

  std::mutex mutex_;  // guards all below
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool ending_ = false;
};

}  // namespace verdo::local
