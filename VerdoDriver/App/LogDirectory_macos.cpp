#include "VerdoDriver/App/FileLog.h"
#include "VerdoDriverCore/Contract/DriverConstants.h"

namespace verdo {

std::string FileLog::defaultDirectory() {
  return DriverConstants::expandTilde("~/Library/Logs/Verdo Driver");
}

}  // namespace verdo
