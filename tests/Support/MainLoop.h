#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <chrono>
#include <functional>

namespace verdo::test {

/// Runs the main thread's events until `condition` holds; false when the time ran out first.
inline bool spinUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  QElapsedTimer timer;
  timer.start();
  while (!condition()) {
    if (timer.elapsed() > timeout.count()) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }
  return true;
}

/// Runs the events that are due now.
inline void spin() { QCoreApplication::processEvents(); }

}  // namespace verdo::test
