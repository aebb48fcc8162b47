#pragma once

#include "VerdoDriver/Model/AppModel.h"

#include <string>

namespace verdo {

/// The app's state as one JSON object on one line, for programs that ask with --status. It never
/// holds a secret, nor the secret code of a pairing.
std::string statusReport(const AppModel& model, bool isPopoverVisible);

}  // namespace verdo
