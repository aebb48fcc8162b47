#include "VerdoDriver/App/Composition.h"

#include "VerdoDriver/App/AppInfo.h"
#include "VerdoDriver/Model/EgoLocator.h"
#include "VerdoDriver/Model/PairingClient.h"
#include "VerdoDriver/Platform/DesktopProxy.h"
#include "VerdoDriver/Platform/NativeSettings.h"
#include "VerdoDriver/Platform/PlatformParts.h"
#include "VerdoDriverCore/Run/JobTraces.h"

#include <QDesktopServices>
#include <QSettings>
#include <QUrl>
#include <utility>

namespace verdo {

std::unique_ptr<AppModel> makeAppModel(std::shared_ptr<FileLog> log, std::string llmBase) {
  auto settings = std::make_unique<SettingsStore>(nativeSettings());
  auto platform = makePlatformParts(AppInfo::bundleID(), settings->secretPlace());
  AppModel::Parts parts;
  parts.settings = std::move(settings);
  parts.secrets = std::move(platform.secrets);
  parts.factory = std::make_shared<RealDriverFactory>(desktopProxyFor);
  parts.logPath = log->path();
  parts.log = std::move(log);
  parts.loginItems = std::move(platform.loginItems);
  parts.updateChecker = std::make_unique<UpdateChecker>(AppInfo::version(), desktopProxyFor);
  parts.clock = std::move(platform.clock);
  parts.powerAssertion = std::move(platform.powerAssertion);
  parts.pairingService = std::make_shared<PairingClient>(AppInfo::clientHeader(), desktopProxyFor);
  parts.wakeMonitor = std::move(platform.wakeMonitor);
  parts.pathMonitor = std::move(platform.pathMonitor);
  parts.egoPath = EgoLocator::path;
  parts.hostName = hostName;
  parts.openURL = [](const std::string& url) {
    QDesktopServices::openUrl(QUrl(QString::fromStdString(url)));
  };
  parts.removeTraces = [] {
    return JobTraces(JobTraces::ofTheUser(EgoLocator::extraPathDirs())).remove();
  };
  parts.llmBase = std::move(llmBase);
  parts.browserPackage = std::move(platform.browserPackage);
  parts.clientHeader = AppInfo::clientHeader();
  return std::make_unique<AppModel>(std::move(parts));
}

}  // namespace verdo
