#pragma once

#include <cstddef>
#include <string_view>

namespace verdo {

/// How much longer than its text a JSON string can get ("\u001f" for one byte).
inline constexpr std::size_t kJsonExpansion = 6;
/// Bytes behind the result that escapeJson may write to.
inline constexpr std::size_t kJsonSlack = 16;

/// Writes the text as the inside of a JSON string in pure ASCII, as Python's json.dumps does; bytes
/// that are not UTF-8 come out as U+FFFD. `out` has room for kJsonExpansion * text.size() +
/// kJsonSlack bytes. Gives the end of what was written.
char* escapeJson(std::string_view text, char* out);

}  // namespace verdo
