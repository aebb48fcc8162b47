#include "VerdoDriver/Model/EgoLocator.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Executor.h"

namespace verdo::EgoLocator {

std::vector<std::string> extraPathDirs() {
  return {DriverConstants::expandTilde("~/.local/bin"), "/opt/homebrew/bin", "/usr/local/bin"};
}

std::string command() { return Executor::defaultCommand(extraPathDirs()); }

std::optional<std::string> path() { return Executor::locate(command(), extraPathDirs()); }

}  // namespace verdo::EgoLocator
