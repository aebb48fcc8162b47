#pragma once

#include "VerdoDriverCore/Values/JV.h"

#include <cstddef>
#include <string_view>

namespace verdo {

/// Arrays and objects nested deeper than this are refused: whoever walks a value does so by
/// recursion. It is the limit that the original platform's JSON reader has.
inline constexpr std::size_t kMaxJsonDepth = 512;

/// Reads one JSON value of any kind; blanks around it are allowed. Integers beyond 64 bits become
/// doubles; of a repeated key the last value counts, at the place of the first.
/// Throws PyError "JSONDecodeError" with a one-line reason for anything that is not JSON in UTF-8.
JV parseJson(std::string_view text);

}  // namespace verdo
