#include "VerdoDriver/App/AppDelegate.h"

#include "VerdoDriver/App/AppInfo.h"
#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriverCore/Contract/Protocol.h"

#include <QPointer>
#include <utility>

#include <fmt/format.h>

namespace verdo {

AppDelegate::AppDelegate(AppModel& model, MenuBarController& menuBar, std::function<void()> end)
    : model_(model), menuBar_(menuBar), end_(std::move(end)) {}

void AppDelegate::didFinishLaunching(const Options& options) {
  AppLog::lifecycle.info(
      fmt::format("[AppDelegate] Verdo Driver {} starting (protocol {}, driver {})",
                  AppInfo::version(), DRIVER_PROTOCOL, DRIVER_VERSION));
  model_.didLaunch([self = QPointer(this)](bool isNotSetUp) {
    if (self && isNotSetUp) self->menuBar_.showPopover();
  });
  if (options.importLegacy) model_.legacyImport().importLegacyHeadless();
  if (options.showPopover) menuBar_.showPopover();
  AppLog::lifecycle.info(fmt::format("[AppDelegate] launched (configured: {}, popover: {})",
                                     model_.isConfigured(), menuBar_.isPopoverVisible()));
}

void AppDelegate::quit() {
  isRestarting_ = false;
  AppLog::lifecycle.info("[AppDelegate] quit requested — stopping the driver first");
  stopWithin(DriverSupervisor::kStopTimeout);
}

void AppDelegate::restart() {
  AppLog::lifecycle.info("[AppDelegate] restart requested — stopping the driver first");
  isRestarting_ = true;
  stopWithin(DriverSupervisor::kStopTimeout);
}

void AppDelegate::sessionEnds() {
  isRestarting_ = false;
  AppLog::lifecycle.info("[AppDelegate] the session ends — stopping the driver first");
  stopWithin(kSessionEndLimit);
}

void AppDelegate::displayIsLost() {
  AppLog::lifecycle.error("[AppDelegate] the display is gone — stopping the driver");
  model_.checkup().close();
  model_.supervisor().endRunsNow(kSessionEndLimit);
}

/// The shortest of the limits that were asked for counts.
void AppDelegate::stopWithin(std::chrono::seconds limit) {
  model_.clock().after(limit, [self = QPointer(this)] {
    if (self) self->driverStopped();
  });
  if (std::exchange(isStopping_, true)) return;
  model_.cancelAttempts();
  // What the user has asked to be removed is not left half removed.
  QObject::connect(&model_, &AppModel::changed, this, &AppDelegate::endUnlessRemoving);
  model_.supervisor().stop(DriverSupervisor::kStopTimeout, [self = QPointer(this)] {
    if (!self) return;
    self->hasStopped_ = true;
    self->endUnlessRemoving();
  });
}

void AppDelegate::endUnlessRemoving() {
  if (hasStopped_ && !model_.isRemoving()) driverStopped();
}

void AppDelegate::driverStopped() {
  const auto end = std::exchange(end_, nullptr);
  if (!end) return;
  AppLog::lifecycle.info("[AppDelegate] driver stopped — terminating");
  model_.supervisor().killJobsNow();
  end();
}

}  // namespace verdo
