#pragma once

#include "VerdoDriverCore/Doctor/Finding.h"
#include "VerdoDriverCore/Doctor/Remedies.h"
#include "VerdoDriverCore/Network/HttpTrace.h"
#include "VerdoDriverCore/Values/Url.h"

#include <chrono>
#include <string>
#include <vector>

namespace verdo {

/// A request to the service, as far as it came.
struct RouteEvidence {
  HttpTrace trace;
  Url server;
  std::string failure;    ///< what the request failed with; empty: it did not
  bool hasOwnCa = false;  ///< only certificates of the user's own choice are trusted
  std::chrono::system_clock::time_point now;  ///< this computer's clock
  Remedies remedies;
};

/// The names of the checks below, in their order.
std::vector<std::string> routeChecks();

/// What the request tells of the way to the service: name resolution, proxy, connection, TLS,
/// clock.
std::vector<Finding> examineRoute(const RouteEvidence& evidence);

}  // namespace verdo
