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
  /// Begins to report: soon the present state, then every change of it. True after true means that
  /// the path has changed: what was connected by the old one may be dead.
  virtual void start() = 0;
 Q_SIGNALS:
  void reported(bool satisfied);
};

}  // namespace verdo
