#pragma once

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <chrono>
#include <functional>

namespace verdo::test {

/// Becomes true by a block that main() posts before the application object is there.
inline bool earlyPostRan = false;

/// Runs the main thread's events until `condition` holds; false when the time ran out first.
inline bool spinUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    // Conditions that another thread brings about come without an event: look again soon.
    QEventLoop loop;
    QTimer::singleShot(2, &loop, &QEventLoop::quit);
    loop.exec();
  }
  return true;
}

/// Runs the events that are due now.
inline void spin() { QCoreApplication::processEvents(); }

}  // namespace verdo::test
