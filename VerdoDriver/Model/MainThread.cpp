#include "VerdoDriver/Model/MainThread.h"

#include "VerdoDriverCore/System/Sync.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <cstddef>
#include <deque>
#include <utility>

namespace verdo::MainThread {
namespace {

/// Runs one block of the queue for each event.
class Receiver : public QObject {
 public:
  explicit Receiver(std::function<void()> runNext) : runNext_(std::move(runNext)) {}
  bool event(QEvent* event) override {
    if (event->type() != QEvent::User) return QObject::event(event);
    runNext_();
    return true;
  }

 private:
  const std::function<void()> runNext_;
};

/// The posted blocks. They lie in a queue of our own, so that the sanitizers, which do not see into
/// Qt, see how they are handed over, and so that those that come before the application wait for
/// it.
class Queue {
 public:
  void post(std::function<void()> block) EXCLUDES(lock_) {
    Receiver* target = nullptr;
    {
      MutexLock lock(lock_);
      blocks_.push_back(std::move(block));
      target = receiver_;
    }
    if (target) announce(*target);
  }

  /// On the thread of the application object, which is there now.
  void open() EXCLUDES(lock_) {
    MutexLock lock(lock_);
    if (receiver_) return;
    receiver_ = new Receiver([this] { take()(); });
    // Under the lock: the events of later posts come behind these.
    for (std::size_t early = blocks_.size(); early > 0; --early) announce(*receiver_);
  }

 private:
  static void announce(Receiver& receiver) {
    QCoreApplication::postEvent(&receiver, new QEvent(QEvent::User));
  }
  std::function<void()> take() EXCLUDES(lock_) {
    MutexLock lock(lock_);
    auto block = std::move(blocks_.front());
    blocks_.pop_front();
    return block;
  }

  Mutex lock_;
  Receiver* receiver_ GUARDED_BY(lock_) = nullptr;
  /// As many as events under way, once there is a receiver.
  std::deque<std::function<void()>> blocks_ GUARDED_BY(lock_);
};

/// It outlives the application object on purpose: a thread that was left behind may still post
/// while the process ends.
Queue& queue() {
  static auto* const object = new Queue;
  return *object;
}

void openQueue() { queue().open(); }
Q_COREAPP_STARTUP_FUNCTION(openQueue)

}  // namespace

bool isCurrent() {
  return QCoreApplication::instance() &&
         QThread::currentThread() == QCoreApplication::instance()->thread();
}

void require(const char* operation) {
  if (!isCurrent()) qFatal("%s must be called on the main thread", operation);
}

void post(std::function<void()> block) { queue().post(std::move(block)); }

}  // namespace verdo::MainThread
