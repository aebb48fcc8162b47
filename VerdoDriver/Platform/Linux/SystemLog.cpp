#include "VerdoDriver/Platform/SystemLog.h"

namespace verdo {

// Qt writes to the journal, or to standard error, with the category in front.
void openSystemLog(const std::string&) {}

}  // namespace verdo
