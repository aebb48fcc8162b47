#pragma once

#include "VerdoDriver/Model/SecretPlace.h"
#include "VerdoDriver/Model/SystemParts.h"

#include <optional>
#include <string>

namespace verdo {

/// `appId` names the app to the system; `usedBefore`: where secrets were kept so far. Main thread,
/// once the application object is there. Asks nothing of the system yet but where it is.
SystemParts makeSystemParts(const std::string& appId, const std::optional<SecretPlace>& usedBefore);

/// What starts this app once more; empty where nothing but the desktop may do so. Does not change
/// when another program takes its place. Main thread, once the application object is there.
std::string programPath();

/// The name of this computer, for a person to recognise it by.
std::string hostName();

}  // namespace verdo
