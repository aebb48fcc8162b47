#pragma once

#include <string>

namespace verdo {

/// Where this system's users look for the logs of programs: ~/Library/Logs/Verdo Driver on macOS,
/// $XDG_STATE_HOME/verdo-driver (~/.local/state/verdo-driver unless set) on Linux. It need not
/// exist.
std::string logDirectory();

}  // namespace verdo
