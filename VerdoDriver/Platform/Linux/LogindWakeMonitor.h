#pragma once

#include "VerdoDriver/Model/SystemEvents.h"
#include "VerdoDriver/Platform/Linux/BusLink.h"

#include <memory>

namespace verdo {

/// Learns from logind when the computer has woken up. Without logind it never tells anything; one
/// that appears later is heard.
class LogindWakeMonitor : public WakeMonitor {
  Q_OBJECT
 public:
  explicit LogindWakeMonitor(std::shared_ptr<BusLink> systemBus);

 private:
  const std::shared_ptr<BusLink> bus_;
};

}  // namespace verdo
