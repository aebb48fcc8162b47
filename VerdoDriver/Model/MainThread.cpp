#include "VerdoDriver/Model/MainThread.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>

namespace verdo::MainThread {
namespace {

const auto kBlockEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

class BlockEvent : public QEvent {
 public:
  explicit BlockEvent(std::function<void()> block)
      : QEvent(kBlockEvent), block_(std::move(block)) {}
  void run() const { block_(); }

 private:
  const std::function<void()> block_;
};

/// Receives the posted blocks.
class Receiver : public QObject {
 public:
  bool event(QEvent* event) override {
    if (event->type() != kBlockEvent) return QObject::event(event);
    static_cast<BlockEvent*>(event)->run();
    return true;
  }
};

/// It outlives the application object on purpose: a thread that was left behind may still post
/// while the process ends.
Receiver& receiver() {
  static auto* const object = [] {
    auto* made = new Receiver;
    made->moveToThread(QCoreApplication::instance()->thread());
    return made;
  }();
  return *object;
}

}  // namespace

bool isCurrent() {
  return QCoreApplication::instance() &&
         QThread::currentThread() == QCoreApplication::instance()->thread();
}

void require(const char* operation) {
  if (!isCurrent()) qFatal("%s must be called on the main thread", operation);
}

void post(std::function<void()> block) {
  QCoreApplication::postEvent(&receiver(), new BlockEvent(std::move(block)));
}

}  // namespace verdo::MainThread
