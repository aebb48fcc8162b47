#include "VerdoDriver/Platform/NativeSettings.h"

#include <QSettings>

namespace verdo {

std::unique_ptr<QSettings> nativeSettings() {
  // Organisation and application give the domain com.pellmar.verdodriver.
  return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, "pellmar.com",
                                     "verdodriver");
}

}  // namespace verdo
