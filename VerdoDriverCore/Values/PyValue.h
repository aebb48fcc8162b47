#pragma once

#include "VerdoDriverCore/Values/JV.h"

#include <cstdint>
#include <optional>
#include <string>

namespace verdo {

// How Python would read a decoded JSON value. A null pointer stands for a missing value, so that
// the result of JV::find can be given as it is.

/// str(value): absent for a missing value and null; lists and objects give their JSON text.
std::optional<std::string> pyStr(const JV* value);
/// The same; a text is moved, not copied.
std::optional<std::string> pyStr(JV&& value);

/// bool(value): false for missing, null, zero, and empty texts, lists and objects.
bool pyTruthy(const JV* value);

/// pyStr when the value is truthy, else absent.
std::optional<std::string> pyStrIfTruthy(const JV* value);
std::optional<std::string> pyStrIfTruthy(JV&& value);

/// int(value), as far as the service uses it: an integer as it is, or a text of decimal digits
/// with an optional sign and no blanks. Absent for anything else, booleans and overflow included.
std::optional<std::int64_t> pyInt(const JV* value);

}  // namespace verdo
