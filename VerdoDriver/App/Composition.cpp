#include "VerdoDriver/App/Composition.h"

#include "VerdoDriver/App/AppInfo.h"
#include "VerdoDriver/Model/EgoLocator.h"
#include "VerdoDriver/Model/PairingClient.h"
#include "VerdoDriver/Platform/DesktopProxy.h"
#include "VerdoDriver/Platform/NativeSettings.h"
#include "VerdoDriver/Platform/SystemParts.h"
#include "VerdoDriverCore/Run/JobTraces.h"

#include <QDesktopServices>
#include <QSettings>
#include <QUrl>
#include <utility>

namespace verdo {

std::unique_ptr<AppModel> makeAppModel(std::shared_ptr<FileLog> log, std::string llmBase,
                                       const std::string& extraCaCertPath) {
  auto settings = std::make_unique<SettingsStore>(nativeSettings());
  AppModel::Parts parts;
  parts.system = makeSystemParts(AppInfo::bundleID(), settings->secretPlace());
  parts.settings = std::move(settings);
  parts.factory = std::make_shared<RealDriverFactory>(desktopProxyFor, Timings{}, extraCaCertPath);
  parts.logPath = log->path();
  parts.log = std::move(log);
  parts.updateChecker =
      std::make_unique<UpdateChecker>(AppInfo::version(), desktopProxyFor, extraCaCertPath);
  parts.pairingService =
      std::make_shared<PairingClient>(AppInfo::clientHeader(), desktopProxyFor, extraCaCertPath);
  parts.egoPath = EgoLocator::path;
  parts.hostName = hostName;
  parts.openURL = [](const std::string& url) {
    QDesktopServices::openUrl(QUrl(QString::fromStdString(url)));
  };
  parts.removeTraces = [] {
    return JobTraces(JobTraces::ofTheUser(EgoLocator::extraPathDirs())).remove();
  };
  parts.llmBase = std::move(llmBase);
  parts.clientHeader = AppInfo::clientHeader();
  return std::make_unique<AppModel>(std::move(parts));
}

}  // namespace verdo
