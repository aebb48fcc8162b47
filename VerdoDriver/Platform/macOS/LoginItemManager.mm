#include "VerdoDriver/Platform/macOS/LoginItemManager.h"

#include "VerdoDriver/Model/AppLog.h"

#include <string>

#import <ServiceManagement/ServiceManagement.h>
#include <fmt/format.h>

namespace verdo {
namespace {

void logFailure(const char* operation, NSError* error) {
  const char* const reason = [[error localizedDescription] UTF8String];
  AppLog::loginItem.error(
      fmt::format("[LoginItem] {} failed: {}", operation, reason ? reason : "no reason given"));
}

void logStatus(SMAppServiceStatus status) {
  switch (status) {
    case SMAppServiceStatusEnabled:
      return AppLog::loginItem.info("[LoginItem] enabled");
    case SMAppServiceStatusNotRegistered:
      return AppLog::loginItem.error("[LoginItem] register left it notRegistered");
    case SMAppServiceStatusRequiresApproval:
      return AppLog::loginItem.info(
          "[LoginItem] requires approval in System Settings › General › Login Items");
    case SMAppServiceStatusNotFound:
      return AppLog::loginItem.error("[LoginItem] service not found");
  }
  AppLog::loginItem.error(fmt::format("[LoginItem] unknown status {}", static_cast<long>(status)));
}

}  // namespace

bool LoginItemManager::isEnabled() const {
  @autoreleasepool {
    return [[SMAppService mainAppService] status] == SMAppServiceStatusEnabled;
  }
}

void LoginItemManager::setEnabled(bool enabled) {
  @autoreleasepool {
    SMAppService* const service = [SMAppService mainAppService];
    NSError* error = nil;
    if (enabled) {
      if (![service registerAndReturnError:&error]) logFailure("register", error);
      logStatus([service status]);
    } else if ([service unregisterAndReturnError:&error]) {
      AppLog::loginItem.info("[LoginItem] disabled");
    } else {
      logFailure("unregister", error);
    }
  }
}

}  // namespace verdo
