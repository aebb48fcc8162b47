#pragma once

#include "VerdoDriver/Model/MainThread.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace verdo {

/// Runs `work` on a thread of its own with this name. The thread is not waited for: `work` owns
/// what it uses. Throws std::system_error when the system has no room for a thread.
void runInBackground(const std::string& name, std::function<void()> work);

/// A block that runs `work`, wherever it is called, and then `done` with its result on the main
/// thread.
template <typename Work, typename Done>
std::function<void()> thenOnMainThread(Work work, Done done) {
  return [work = std::move(work), done = std::move(done)]() mutable {
    // Shared, because a posted block has to be copyable and a result need not be.
    auto result = std::make_shared<decltype(work())>(work());
    MainThread::post([result, done = std::move(done)]() mutable { done(std::move(*result)); });
  };
}

/// Runs `work` on a thread of its own and then `done` with its result on the main thread. For calls
/// that may block, of which the user interface must notice nothing.
template <typename Work, typename Done>
void runInBackground(const std::string& name, Work work, Done done) {
  runInBackground(name, thenOnMainThread(std::move(work), std::move(done)));
}

/// Runs blocks one after the other, in the order in which they came, on one thread that is there
/// only while there is work. Any thread may call.
class SerialQueue {
 public:
  explicit SerialQueue(std::string threadName);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Runs `work`, which must not throw and owns what it uses, after all that was posted before; not
  /// at all once the queue is closed. Throws std::system_error when a thread is needed and the
  /// system has no room for one; `work` is not run then.
  void post(std::function<void()> work);
  /// Drops what has not begun. False when what has begun goes on after `limit`.
  bool close(std::chrono::milliseconds limit);

 private:
  struct State;
  /// Shared with the thread, which may outlive the queue.
  const std::shared_ptr<State> state_;
};

}  // namespace verdo
