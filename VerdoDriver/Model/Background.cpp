#include "VerdoDriver/Model/Background.h"

#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/System/ThreadName.h"
#include "VerdoDriverCore/System/WipedMemory.h"

#include <deque>
#include <thread>

namespace verdo {

void runInBackground(const std::string& name, std::function<void()> work) {
  std::thread([name, work = std::move(work)] {
    setThreadName(name);
    work();
    wipeUsedStack();
  }).detach();
}

struct SerialQueue::State {
  explicit State(std::string threadName) : name(std::move(threadName)) {}

  /// The next block to run; none, and no thread is at work any more, when there is none.
  std::function<void()> next() EXCLUDES(lock) {
    MutexLock held(lock);
    if (waiting.empty()) {
      isRunning = false;
      idle.notifyAll();
      return nullptr;
    }
    auto work = std::move(waiting.front());
    waiting.pop_front();
    return work;
  }

  const std::string name;
  Mutex lock;
  Condition idle;
  std::deque<std::function<void()>> waiting GUARDED_BY(lock);
  bool isRunning GUARDED_BY(lock) = false;
  bool isClosed GUARDED_BY(lock) = false;
};

SerialQueue::SerialQueue(std::string threadName)
    : state_(std::make_shared<State>(std::move(threadName))) {}

SerialQueue::~SerialQueue() { close(std::chrono::milliseconds::zero()); }

void SerialQueue::post(std::function<void()> work) {
  MutexLock held(state_->lock);
  if (state_->isClosed) return;
  if (!state_->isRunning) {
    // Before the work is queued: without a thread nothing stays behind.
    runInBackground(state_->name, [state = state_] {
      while (auto next = state->next()) next();
    });
    state_->isRunning = true;
  }
  state_->waiting.push_back(std::move(work));
}

bool SerialQueue::close(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::deque<std::function<void()>> dropped;  // destroyed after the lock is free
  MutexLock held(state_->lock);
  state_->isClosed = true;
  dropped.swap(state_->waiting);
  while (state_->isRunning) {
    if (!state_->idle.waitUntil(state_->lock, deadline)) return !state_->isRunning;
  }
  return true;
}

}  // namespace verdo
