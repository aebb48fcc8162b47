#include "VerdoDriver/Platform/SystemIcon.h"

namespace verdo {

QIcon systemIcon(Connection, bool) { return {}; }

}  // namespace verdo
