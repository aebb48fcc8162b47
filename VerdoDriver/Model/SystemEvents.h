#pragma once

#include <QObject>

namespace verdo {

/// Tells when the computer has woken up. Lives on the main thread.
class WakeMonitor : public QObject {
  Q_OBJECT
 public:
  using QObject::QObject;
 Q_SIGNALS:
  void woke();
};

/// Tells whether the network can be reached. Lives on the main thread.
class PathMonitor : public QObject {
  Q_OBJECT
 public:
  using QObject::QObject;
  /// Begins to report: soon the present state, then every change of routes, which may repeat the
  /// state.
  virtual void start() = 0;
 Q_SIGNALS:
  void reported(bool satisfied);
};

}  // namespace verdo
