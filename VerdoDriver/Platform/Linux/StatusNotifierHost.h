#pragma once

#include <QDBusServiceWatcher>
#include <QObject>
#include <functional>

namespace verdo {

/// Waits for a panel that shows the icons of programs which name themselves on the session bus
/// (StatusNotifierItem), and goes when there is one. Asks without waiting. Main thread only.
class StatusNotifierHost : public QObject {
  Q_OBJECT
 public:
  /// `found` is called once, never inside the constructor.
  StatusNotifierHost(std::function<void()> found, QObject* parent);

 private:
  Q_SLOT void ask();

  std::function<void()> found_;  ///< until it was called
  QDBusServiceWatcher watcher_;
};

}  // namespace verdo
