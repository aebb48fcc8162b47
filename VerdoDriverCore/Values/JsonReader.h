#pragma once

#include "VerdoDriverCore/Values/JV.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace verdo {

/// Arrays and objects nested deeper than this are refused: whoever walks a value does so by
/// recursion. It is the limit that the original platform's JSON reader has.
inline constexpr std::size_t kMaxJsonDepth = 512;

/// Texts with more values than this are refused. A value costs 40 to 112 bytes, whatever its text:
/// thus all of them stay below the size of the longest reply (64 MiB), where two bytes of text may
/// hold one. A job has a dozen, and four for each of its files.
inline constexpr std::size_t kMaxJsonValues = 500'000;

/// What becomes of a number that no double can hold, such as 1e400.
enum class HugeNumber { isDefect, isNull };

/// Reads one JSON value of any kind; blanks around it are allowed. Integers beyond 64 bits become
/// doubles; of a repeated key the last value counts, at the place of the first; half a surrogate
/// pair ("\ud83d", as texts have that were cut in JavaScript) reads as U+FFFD. While it works it
/// needs the text and the value, and nothing beside them that grows with either.
/// Throws PyError "JSONDecodeError" with a one-line reason for what is no JSON, and for what
/// readJson calls a defect, but for huge numbers where they may be null.
JV parseJson(std::string_view text, HugeNumber huge = HugeNumber::isDefect);

/// What came of a tolerant reading.
struct JsonReading {
  JV value;
  /// The first thing in the text, in words, that `value` does not show as it was; absent: none.
  std::optional<std::string> defect;
};

/// Reads as parseJson does, past the defects from which one can go on: a number beyond the doubles
/// and what is nested too deeply become null, values that are too many are left out (but for the
/// first members of the two outermost levels), and bytes that are not UTF-8 become U+FFFD.
/// Throws PyError "JSONDecodeError" for what is no JSON.
JsonReading readJson(std::string_view text);

}  // namespace verdo
