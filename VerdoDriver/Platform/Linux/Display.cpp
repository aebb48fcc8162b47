#include "VerdoDriver/Platform/Display.h"

#include <cstdlib>

namespace verdo {
namespace {

bool isSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value && *value;
}

}  // namespace

bool hasDisplay() {
  // A platform that the user names (offscreen, for instance) is the user's business.
  return isSet("DISPLAY") || isSet("WAYLAND_DISPLAY") || isSet("QT_QPA_PLATFORM");
}

}  // namespace verdo
