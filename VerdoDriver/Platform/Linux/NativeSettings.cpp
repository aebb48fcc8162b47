#include "VerdoDriver/Platform/NativeSettings.h"

#include <QSettings>

namespace verdo {

std::unique_ptr<QSettings> nativeSettings() {
  return std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope, "verdo-driver",
                                     "settings");
}

}  // namespace verdo
