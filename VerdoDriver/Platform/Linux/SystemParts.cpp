#include "VerdoDriver/Platform/SystemParts.h"

#include "VerdoDriver/Model/PowerAssertionGroup.h"
#include "VerdoDriver/Model/SystemClock.h"
#include "VerdoDriver/Platform/BootTime.h"
#include "VerdoDriver/Platform/Linux/AutostartEntry.h"
#include "VerdoDriver/Platform/Linux/DesktopInhibitor.h"
#include "VerdoDriver/Platform/Linux/LogindInhibitor.h"
#include "VerdoDriver/Platform/Linux/LogindWakeMonitor.h"
#include "VerdoDriver/Platform/Linux/ProgramFile.h"
#include "VerdoDriver/Platform/Linux/RouteMonitor.h"
#include "VerdoDriver/Platform/Linux/SecretStoreChoice.h"

#include <QCoreApplication>
#include <QStandardPaths>
#include <QSysInfo>

namespace verdo {
namespace {

/// Secrets that no keyring takes lie beside the user's data, apart from what the removal of an old
/// driver deletes.
std::string secretDirectory() {
  return (QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
          "/verdo-driver/secrets")
      .toStdString();
}

}  // namespace

SystemParts makeSystemParts(const std::string& appId,
                            const std::optional<SecretPlace>& usedBefore) {
  const auto systemBus = std::make_shared<BusLink>(BusLink::systemAddress());
  const auto sessionBus = std::make_shared<BusLink>(BusLink::sessionAddress());
  const auto clock = std::make_shared<SystemClock>(bootTime);
  SystemParts parts;
  parts.clock = clock;
  parts.secrets = std::make_shared<SecretStoreChoice>(SecretStoreOptions{
      .service = appId,
      .fileDirectory = secretDirectory(),
      .limits = {},
      .usedBefore = usedBefore,
  });
  parts.powerAssertion = std::make_shared<PowerAssertionGroup>(
      std::vector<std::shared_ptr<PowerAssertion>>{std::make_shared<LogindInhibitor>(systemBus),
                                                   std::make_shared<DesktopInhibitor>(sessionBus)});
  parts.loginItems = std::make_shared<AutostartEntry>(programPath(), appId);
  parts.wakeMonitor = std::make_unique<LogindWakeMonitor>(systemBus);
  QObject::connect(parts.wakeMonitor.get(), &WakeMonitor::woke, parts.wakeMonitor.get(),
                   [clock] { clock->catchUp(); });
  parts.pathMonitor = std::make_unique<RouteMonitor>();
  parts.browserPackage = "verdo-browser";
  parts.isProgramReplaced = [program = ProgramFile(programPath())] { return program.isReplaced(); };
  return parts;
}

// Qt asks the system once, and remembers the answer.
std::string programPath() {
  return AutostartEntry::programFor(QCoreApplication::applicationFilePath().toStdString());
}

std::string hostName() { return QSysInfo::machineHostName().toStdString(); }

}  // namespace verdo
