#pragma once

#include <memory>

class QSettings;

namespace verdo {

/// The app's settings where this system keeps those of programs: an INI file in the user's
/// configuration directory ($XDG_CONFIG_HOME/verdo-driver/settings.ini) on Linux, the user
/// defaults on macOS. Nothing is created before the first write.
std::unique_ptr<QSettings> nativeSettings();

}  // namespace verdo
