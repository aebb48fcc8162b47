#pragma once

#include "VerdoDriver/Model/SecretPlace.h"
#include "VerdoDriver/Model/SystemParts.h"

#include <optional>
#include <string>

namespace verdo {

/// `appId` names the app to the system; `usedBefore`: where secrets were kept so far. Main thread,
/// once the application object is there. Asks nothing of the system yet but where it is.
SystemParts makeSystemParts(const std::string& appId, const std::optional<SecretPlace>& usedBefore);

/// The name of this computer, for a person to recognise it by.
std::string hostName();

}  // namespace verdo
