#pragma once

#include "LocalService/LocalService.h"
#include "bench/MeasuredProcess.h"

namespace verdo::bench {

/// A verdo-driver that serves the service with the given executor command.
inline MeasuredProcess startDriver(local::LocalService& service, const std::string& executor,
                                   const Environment& additional = {}) {
  Environment environment = additional;
  environment["VERDO_DRIVER_TOKEN"] = service.token();
  return MeasuredProcess(VERDO_DRIVER_PATH, {"--server", service.url(), "--exec", executor},
                         environment);
}

}  // namespace verdo::bench
