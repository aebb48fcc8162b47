#include "VerdoDriver/Model/MainThread.h"

#include "VerdoDriverCore/System/Sync.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <deque>
#include <utility>

namespace verdo::MainThread {
namespace {

/// Takes the posted blocks in, and runs one for each event. The blocks lie in a queue of our own,
/// so that the sanitizers, which do not see into Qt, see how they are handed over.
class Receiver : public QObject {
 public:
  void post(std::function<void()> block) EXCLUDES(lock_) {
    {
      MutexLock lock(lock_);
      blocks_.push_back(std::move(block));
    }
    QCoreApplication::postEvent(this, new QEvent(QEvent::User));
  }
  bool event(QEvent* event) override EXCLUDES(lock_) {
    if (event->type() != QEvent::User) return QObject::event(event);
    take()();
    return true;
  }

 private:
  std::function<void()> take() EXCLUDES(lock_) {
    MutexLock lock(lock_);
    auto block = std::move(blocks_.front());
    blocks_.pop_front();
    return block;
  }

  Mutex lock_;
  std::deque<std::function<void()>> blocks_ GUARDED_BY(lock_);  ///< as many as events under way
};

/// It outlives the application object on purpose: a thread that was left behind may still post
/// while the process ends. None when the first post comes only then.
Receiver* receiver() {
  static Receiver* const object = []() -> Receiver* {
    if (!QCoreApplication::instance()) return nullptr;
    auto* made = new Receiver;
    made->moveToThread(QCoreApplication::instance()->thread());
    return made;
  }();
  return object;
}

}  // namespace

bool isCurrent() {
  return QCoreApplication::instance() &&
         QThread::currentThread() == QCoreApplication::instance()->thread();
}

void require(const char* operation) {
  if (!isCurrent()) qFatal("%s must be called on the main thread", operation);
  receiver();  // made here, before any thread is started that could be the first to post
}

void post(std::function<void()> block) {
  if (auto* const target = receiver()) target->post(std::move(block));
}

}  // namespace verdo::MainThread
