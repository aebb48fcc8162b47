#pragma once

#include "VerdoDriver/Model/SystemEvents.h"

#include <Network/Network.h>

namespace verdo {

/// Learns from the system's path monitor whether the network can be reached. Lives on the main
/// thread; the system's queue hands its updates over.
class NetworkPathMonitor : public PathMonitor {
 public:
  NetworkPathMonitor() = default;
  ~NetworkPathMonitor() override;

  void start() override;

 private:
  nw_path_monitor_t monitor_ = nullptr;  ///< owned; null until started
};

}  // namespace verdo
