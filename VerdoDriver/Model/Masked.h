#pragma once

#include <string>

namespace verdo {

/// The only form in which a secret is shown or logged: four middle dots and its last four
/// characters; "(none)" for an empty one.
std::string masked(const std::string& secret);

}  // namespace verdo
