#include "VerdoDriver/Platform/macOS/IOPMPowerAssertion.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/macOS/CFHandle.h"

#include <utility>

#include <fmt/format.h>

namespace verdo {

IOPMPowerAssertion::~IOPMPowerAssertion() { release(); }

void IOPMPowerAssertion::hold(const std::string& reason) {
  if (isHeld()) return;
  IOPMAssertionID id = kIOPMNullAssertionID;
  const IOReturn result = IOPMAssertionCreateWithName(
      kIOPMAssertionTypeNoIdleSleep, kIOPMAssertionLevelOn, cfText(reason).get(), &id);
  if (result != kIOReturnSuccess) {
    if (std::exchange(loggedFailure_, result) == result) return;
    AppLog::keepAwake.error(
        fmt::format("[KeepAwake] IOPMAssertionCreateWithName failed: {}", result));
    return;
  }
  loggedFailure_ = kIOReturnSuccess;
  id_ = id;
  AppLog::keepAwake.info(fmt::format("[KeepAwake] NoIdleSleep assertion held ({})", reason));
}

void IOPMPowerAssertion::release() {
  if (!isHeld()) return;
  // It fails for an assertion that is gone already only.
  static_cast<void>(IOPMAssertionRelease(std::exchange(id_, kIOPMNullAssertionID)));
  AppLog::keepAwake.info("[KeepAwake] assertion released");
}

}  // namespace verdo
