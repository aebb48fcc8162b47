#include "LocalService/ThreadCache.h"

#include <csignal>
#include <utility>

#include <pthread.h>

namespace verdo::local {
namespace {

/// Threads inherit the mask of their maker, so it is set around the making.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fatal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) sigdelset(&all, fatal);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

void ThreadCache::run(std::function<void()> task) {
  for (auto& thread : takeEnded()) thread.join();  // on its last steps
  const MutexLock lock(mutex_);
  if (tasks_.size() >= idle_) {
    const SignalsBlocked blocked;
    std::thread thread([this] { work(); });
    const auto id = thread.get_id();
    threads_.emplace(id, std::move(thread));
  }
  tasks_.push_back(std::move(task));
  wake_.notifyOne();
}

void ThreadCache::join() {
  {
    const MutexLock lock(mutex_);
    ending_ = true;
    wake_.notifyAll();
  }
  // A task that is still running may add tasks, and with them threads.
  for (auto threads = takeAll(); !threads.empty(); threads = takeAll()) {
    for (auto& thread : threads) thread.join();
  }
  const MutexLock lock(mutex_);
  ending_ = false;
}

std::vector<std::thread> ThreadCache::takeEnded() {
  const MutexLock lock(mutex_);
  return std::exchange(ended_, {});
}

std::vector<std::thread> ThreadCache::takeAll() {
  const MutexLock lock(mutex_);
  auto all = std::exchange(ended_, {});
  for (auto& [id, thread] : threads_) all.push_back(std::move(thread));
  threads_.clear();
  return all;
}

std::function<void()> ThreadCache::nextTask() {
  const auto deadline = std::chrono::steady_clock::now() + maxIdle_;
  const MutexLock lock(mutex_);
  ++idle_;
  while (tasks_.empty() && !ending_ && wake_.waitUntil(mutex_, deadline)) {
  }
  --idle_;
  if (tasks_.empty()) {
    // join() has the handles of those that it ends.
    if (auto self = threads_.extract(std::this_thread::get_id())) {
      ended_.push_back(std::move(self.mapped()));
    }
    return nullptr;
  }
  auto task = std::move(tasks_.front());
  tasks_.pop_front();
  return task;
}

void ThreadCache::work() {
  while (const auto task = nextTask()) task();
}

}  // namespace verdo::local
