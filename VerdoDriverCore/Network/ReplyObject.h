#pragma once

#include "VerdoDriverCore/Values/JsonReader.h"

#include <string_view>

namespace verdo {

/// Reads the body of one of the service's replies, a JSON object. It may have a defect only when
/// `mayBringDefect` and there is a "job" in it, which can be refused by its id. Throws PyError
/// "JSONDecodeError" for every other body.
JsonReading readReplyObject(std::string_view body, bool mayBringDefect);

}  // namespace verdo
