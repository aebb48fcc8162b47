#include "VerdoDriver/Model/MainThread.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

namespace verdo::MainThread {
namespace {

/// Receives the posted blocks. It outlives the application object on purpose: a thread that was
/// left behind may still post while the process ends.
QObject& receiver() {
  static QObject* const object = [] {
    auto* made = new QObject;
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
  QMetaObject::invokeMethod(&receiver(), std::move(block), Qt::QueuedConnection);
}

}  // namespace verdo::MainThread
