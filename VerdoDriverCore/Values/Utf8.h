#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace verdo {

/// What stands for bytes that are not UTF-8.
inline constexpr char32_t kReplacementCharacter = 0xFFFD;

/// Reads one character at `at` (which must be inside `text`) and moves `at` behind it. Bytes that
/// are not UTF-8 give kReplacementCharacter, one for each maximal part of an ill-formed sequence
/// (the practice of the Unicode Standard, section 3.9, which Python and the web follow too).
char32_t decodeUtf8(std::string_view text, std::size_t& at);

/// Appends one character as UTF-8.
void appendUtf8(char32_t character, std::string& out);

/// True when a byte is an ASCII control character, a line end or a tab included: such bytes end the
/// lines of a protocol.
bool hasControlByte(std::string_view bytes);

/// The text with everything that is not UTF-8 replaced by U+FFFD.
std::string repairUtf8(std::string_view bytes);

/// The text, repaired, with control characters (U+0080 to U+009F included) written as "\x1b". Texts
/// quote what servers and programs said: that must not reach the user's terminal as commands. Line
/// ends and tabs are harmless and stay.
std::string withoutControls(std::string_view text);

/// The text, repaired, on one line: control characters, line ends (U+2028 and U+2029 included) and
/// what turns the direction of the text around are written out ("\x0a", "\u202e"). For whatever of
/// a log message comes from outside: it can neither pass for another entry nor hide what follows.
std::string forLog(std::string_view text);

/// The first `limit` characters (code points) of the bytes, repaired.
std::string firstCharacters(std::string_view bytes, std::size_t limit);

/// The last `limit` characters of the bytes, repaired.
std::string lastCharacters(std::string_view bytes, std::size_t limit);

/// How many characters the bytes hold once repaired.
std::size_t countCharacters(std::string_view bytes);

}  // namespace verdo
