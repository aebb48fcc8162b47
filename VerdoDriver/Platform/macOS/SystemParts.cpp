#include "VerdoDriver/Platform/SystemParts.h"

#include "VerdoDriver/Model/SystemClock.h"
#include "VerdoDriver/Platform/BootTime.h"
#include "VerdoDriver/Platform/macOS/IOPMPowerAssertion.h"
#include "VerdoDriver/Platform/macOS/KeychainStore.h"
#include "VerdoDriver/Platform/macOS/LoginItemManager.h"
#include "VerdoDriver/Platform/macOS/NetworkPathMonitor.h"
#include "VerdoDriver/Platform/macOS/WorkspaceWakeMonitor.h"

#include <QSysInfo>

namespace verdo {

// There is one place for secrets, used before or not.
SystemParts makeSystemParts(const std::string& appId, const std::optional<SecretPlace>&) {
  const auto clock = std::make_shared<SystemClock>(bootTime);
  SystemParts parts;
  parts.clock = clock;
  parts.secrets = std::make_shared<KeychainStore>(appId);
  parts.powerAssertion = std::make_shared<IOPMPowerAssertion>();
  parts.loginItems = std::make_shared<LoginItemManager>();
  parts.wakeMonitor = std::make_unique<WorkspaceWakeMonitor>();
  QObject::connect(parts.wakeMonitor.get(), &WakeMonitor::woke, parts.wakeMonitor.get(),
                   [clock] { clock->catchUp(); });
  parts.pathMonitor = std::make_unique<NetworkPathMonitor>();
  // isProgramReplaced is left out: the Finder replaces no bundle whose program runs, and no package
  // does it behind the app's back.
  return parts;
}

// A program that is started past the system would not be the bundle's.
std::string programPath() { return {}; }

std::string hostName() { return QSysInfo::machineHostName().toStdString(); }

}  // namespace verdo
