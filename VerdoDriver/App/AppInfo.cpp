#include "VerdoDriver/App/AppInfo.h"

namespace verdo::AppInfo {

std::string bundleID() { return "com.pellmar.verdodriver"; }

std::string version() { return VERDO_APP_VERSION; }

std::string clientHeader() { return "app/" + (version().empty() ? "0.0.0" : version()); }

std::string defaultServerURL() { return VERDO_DEFAULT_SERVER_URL; }

}  // namespace verdo::AppInfo
