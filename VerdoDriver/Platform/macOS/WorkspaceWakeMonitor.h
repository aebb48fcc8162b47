#pragma once

#include "VerdoDriver/Model/SystemEvents.h"

namespace verdo {

/// Learns from the workspace when the Mac has woken up. Lives on the main thread.
class WorkspaceWakeMonitor : public WakeMonitor {
 public:
  WorkspaceWakeMonitor();
  ~WorkspaceWakeMonitor() override;

 private:
  void* const observer_;  ///< an Objective-C object, owned
};

}  // namespace verdo
