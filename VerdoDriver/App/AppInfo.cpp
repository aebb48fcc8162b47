#include "VerdoDriver/App/AppInfo.h"

#include "VerdoDriver/Platform/BundleFacts.h"
#include "VerdoDriverCore/Contract/Protocol.h"

namespace verdo::AppInfo {

std::string bundleID() {
  return bundleText("CFBundleIdentifier").value_or("com.pellmar.verdodriver");
}

std::string version() { return bundleText("CFBundleShortVersionString").value_or(DRIVER_VERSION); }

std::string clientHeader() { return "app/" + (version().empty() ? "0.0.0" : version()); }

std::string defaultServerURL() {
  return bundleText("VERDODefaultServerURL").value_or(VERDO_DEFAULT_SERVER_URL);
}

}  // namespace verdo::AppInfo
