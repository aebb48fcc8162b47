#include "VerdoDriver/Platform/LogDirectory.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"

#include <cstdlib>

namespace verdo {

std::string logDirectory() {
  const char* state = std::getenv("XDG_STATE_HOME");
  // The base directory rules have relative paths ignored.
  const bool isUsable = state && *state == '/';
  return (isUsable ? std::string(state) : DriverConstants::expandTilde("~/.local/state")) +
         "/verdo-driver";
}

}  // namespace verdo
