#pragma once

#include "VerdoDriver/Model/SystemEvents.h"

#include <QDBusConnection>

namespace verdo {

/// Learns from logind when the computer has woken up. Without logind it never tells anything; one
/// that appears later is heard.
class LogindWakeMonitor : public WakeMonitor {
  Q_OBJECT
 public:
  explicit LogindWakeMonitor(QDBusConnection systemBus = QDBusConnection::systemBus());

 private Q_SLOTS:
  void onPrepareForSleep(bool isGoingToSleep);
};

}  // namespace verdo
