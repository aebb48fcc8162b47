#include "VerdoDriver/Model/EgoLocator.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Executor.h"

namespace verdo::EgoLocator {

std::vector<std::string> extraPathDirs() {
  return {DriverConstants::expandTilde("~/.local/bin"), "/opt/homebrew/bin", "/usr/local/bin"};
}

std::optional<std::string> path() { return Executor::locate(kCommand, extraPathDirs()); }

}  // namespace verdo::EgoLocator
