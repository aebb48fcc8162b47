#pragma once

#include <string>

/// What this build of the app is; its bundle says so, where it has one.
namespace verdo::AppInfo {

/// "com.pellmar.verdodriver": names the app wherever the system asks for a unique name, and on
/// Linux its desktop entry and icon (packaging/desktop).
std::string bundleID();

/// Such as "2026.09.04".
std::string version();

/// How the app presents itself to the service: "app/{version}", with "0.0.0" when it has none.
std::string clientHeader();

/// The service's address that this build offers at first; empty when it offers none.
std::string defaultServerURL();

}  // namespace verdo::AppInfo
