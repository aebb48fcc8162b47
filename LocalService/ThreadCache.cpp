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
  const std::lock_guard lock(mutex_);
  if (tasks_.size() >= idle_) {
    const SignalsBlocked blocked;
    threads_.emplace_back([this] { work(); });
  }
  tasks_.push_back(std::move(task));
  wake_.notify_one();
}

void ThreadCache::join() {
  std::unique_lock lock(mutex_);
  ending_ = true;
  wake_.notify_all();
  // A task that is still running may add tasks, and with them threads.
  while (!threads_.empty()) {
    auto threads = std::exchange(threads_, {});
    lock.unlock();
    for (auto& thread : threads) thread.join();
    lock.lock();
  }
  ending_ = false;
}

void ThreadCache::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    ++idle_;
    wake_.wait(lock, [this] { return !tasks_.empty() || ending_; });
    --idle_;
    if (tasks_.empty()) return;
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
  }
}

}  // namespace verdo::local
