#include "VerdoDriver/App/AppInfo.h"

#include "VerdoDriverCore/Contract/Protocol.h"

namespace verdo::AppInfo {

std::string bundleID() { return "com.pellmar.verdodriver"; }

std::string version() { return DRIVER_VERSION; }

std::string clientHeader() { return "app/" + (version().empty() ? "0.0.0" : version()); }

std::string defaultServerURL() { return VERDO_DEFAULT_SERVER_URL; }

}  // namespace verdo::AppInfo
