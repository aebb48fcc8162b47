#include "VerdoDriver/Platform/LogDirectory.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"

namespace verdo {

std::string logDirectory() { return DriverConstants::expandTilde("~/Library/Logs/Verdo Driver"); }

}  // namespace verdo
