#pragma once

#include <cstddef>
#include <string_view>

namespace verdo {

/// How much longer than its text a JSON string can get ("\u001f" for one byte).
inline constexpr std::size_t kJsonExpansion = 6;
/// Bytes behind the result that escapeJson may write to.
inline constexpr std::size_t kJsonSlack = 16;

/// Long texts are escaped in pieces of this size, bytes: room for the worst case of one is small.
inline constexpr std::size_t kJsonPiece = 64 * 1024;

/// The front of the text that can be escaped for itself: kJsonPiece bytes at most, and not ending
/// inside a character.
std::string_view firstJsonPiece(std::string_view text);

/// Writes the text as the inside of a JSON string in pure ASCII, as Python's json.dumps does; bytes
/// that are not UTF-8 come out as U+FFFD. `out` has room for kJsonExpansion * text.size() +
/// kJsonSlack bytes. Gives the end of what was written.
char* escapeJson(std::string_view text, char* out);

}  // namespace verdo
