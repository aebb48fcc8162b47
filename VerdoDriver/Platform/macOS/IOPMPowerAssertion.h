#pragma once

#include "VerdoDriver/Model/PowerAssertion.h"

#include <IOKit/pwr_mgt/IOPMLib.h>

namespace verdo {

/// Keeps the idle Mac from sleeping, with an assertion of the kernel's power management. Main
/// thread only.
class IOPMPowerAssertion final : public PowerAssertion {
 public:
  IOPMPowerAssertion() = default;
  ~IOPMPowerAssertion() override;
  IOPMPowerAssertion(const IOPMPowerAssertion&) = delete;
  IOPMPowerAssertion& operator=(const IOPMPowerAssertion&) = delete;

  void hold(const std::string& reason) override;
  void release() override;
  bool isHeld() const override { return id_ != kIOPMNullAssertionID; }

 private:
  IOPMAssertionID id_ = kIOPMNullAssertionID;
  IOReturn loggedFailure_ = kIOReturnSuccess;  ///< the same one is told once
};

}  // namespace verdo
