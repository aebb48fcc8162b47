#pragma once

#include <string>

namespace verdo {

/// From now on what the app's channels (AppLog.h) write goes to the system's own log, where it has
/// one that does not get it anyway. `appId` names the app there. To be called once, first thing.
void openSystemLog(const std::string& appId);

}  // namespace verdo
