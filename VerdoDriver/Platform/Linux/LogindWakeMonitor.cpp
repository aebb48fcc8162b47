#include "VerdoDriver/Platform/Linux/LogindWakeMonitor.h"

#include "VerdoDriver/Model/AppLog.h"

namespace verdo {

LogindWakeMonitor::LogindWakeMonitor(QDBusConnection systemBus) {
  if (!systemBus.connect("org.freedesktop.login1", "/org/freedesktop/login1",
                         "org.freedesktop.login1.Manager", "PrepareForSleep", this,
                         SLOT(onPrepareForSleep(bool)))) {
    AppLog::lifecycle.info("[WakeMonitor] no system bus — wake-ups are not noticed");
  }
}

void LogindWakeMonitor::onPrepareForSleep(bool isGoingToSleep) {
  if (!isGoingToSleep) Q_EMIT woke();
}

}  // namespace verdo
