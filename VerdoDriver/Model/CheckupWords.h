#pragma once

#include "VerdoDriver/Model/SecretPlace.h"
#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriverCore/Doctor/Finding.h"
#include "VerdoDriverCore/Doctor/Remedies.h"

#include <exception>
#include <optional>

namespace verdo {

/// What to do, for a person who has the popover, and a desktop with settings, but no command line.
Remedies remediesOfTheApp();

/// How the place of token and key is. `place`: where they are kept, if that is decided; `error`:
/// why it did not tell what it holds, if so.
Finding secretStoreFinding(const std::optional<SecretPlace>& place,
                           const std::optional<SecretError>& error);

/// What a check has to go by without a server's address, and without knowing whether there is a
/// token.
Finding noServerFinding();
Finding unknownTokenFinding();
/// The check itself could not be made, or not to its end.
Finding brokenCheckFinding(const std::exception& error);

}  // namespace verdo
