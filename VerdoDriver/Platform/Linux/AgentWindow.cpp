#include "VerdoDriver/Platform/AgentWindow.h"

namespace verdo::AgentWindow {

void becomeAgent() {}

void present(WId) {}

}  // namespace verdo::AgentWindow
