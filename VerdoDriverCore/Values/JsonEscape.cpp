#include "VerdoDriverCore/Values/JsonEscape.h"

#include "VerdoDriverCore/Values/Utf8.h"

#include <bit>
#include <cstdint>
#include <cstring>

namespace verdo {
namespace {

// Sixteen bytes at a time, in the compilers' portable vector notation: it becomes SSE2 or NEON.
using Block = unsigned char __attribute__((vector_size(16)));

bool isPlain(unsigned char byte) {
  return byte >= 0x20 && byte <= 0x7E && byte != '"' && byte != '\\';
}

/// How many bytes at the front of the block can stand in a JSON string as they are.
std::size_t plainBytes(const Block& block) {
  const auto special = (block < 0x20) | (block > 0x7E) | (block == '"') | (block == '\\');
  std::uint64_t halves[2];
  std::memcpy(halves, &special, sizeof halves);
  if ((halves[0] | halves[1]) == 0) return sizeof block;
  if constexpr (std::endian::native == std::endian::little) {
    return halves[0] != 0 ? static_cast<std::size_t>(std::countr_zero(halves[0])) / 8
                          : 8 + static_cast<std::size_t>(std::countr_zero(halves[1])) / 8;
  }
  return 0;
}

/// Copies plain bytes from `at` on and moves `at` behind them. Gives the end of what was written.
char* copyPlain(std::string_view text, std::size_t& at, char* out) {
  Block block;
  while (at + sizeof block <= text.size()) {
    std::memcpy(&block, text.data() + at, sizeof block);
    std::memcpy(out, &block, sizeof block);
    const std::size_t plain = plainBytes(block);
    at += plain;
    out += plain;
    if (plain < sizeof block) return out;
  }
  if (at < text.size() && text.size() >= sizeof block) {
    // The last bytes, together with some before them. When all are plain, those before stand in
    // the output already, just as they are, and may be written once more.
    std::memcpy(&block, text.data() + text.size() - sizeof block, sizeof block);
    if (plainBytes(block) == sizeof block) {
      out += text.size() - at;
      at = text.size();
      std::memcpy(out - sizeof block, &block, sizeof block);
      return out;
    }
  }
  while (at < text.size() && isPlain(static_cast<unsigned char>(text[at]))) *out++ = text[at++];
  return out;
}

char* putUnit(std::uint32_t unit, char* out) {
  constexpr char kDigits[] = "0123456789abcdef";
  *out++ = '\\';
  *out++ = 'u';
  for (int shift = 12; shift >= 0; shift -= 4) *out++ = kDigits[(unit >> shift) & 0xF];
  return out;
}

/// The letter behind the backslash, or 0 for a character without a short escape.
char shortEscape(char32_t character) {
  switch (character) {
    case '\b':
      return 'b';
    case '\t':
      return 't';
    case '\n':
      return 'n';
    case '\f':
      return 'f';
    case '\r':
      return 'r';
    case '"':
      return '"';
    case '\\':
      return '\\';
    default:
      return 0;
  }
}

char* putEscaped(char32_t character, char* out) {
  if (const char letter = shortEscape(character)) {
    *out++ = '\\';
    *out++ = letter;
    return out;
  }
  if (character < 0x10000) return putUnit(character, out);
  out = putUnit(0xD800 + ((character - 0x10000) >> 10), out);
  return putUnit(0xDC00 + ((character - 0x10000) & 0x3FF), out);
}

}  // namespace

std::string_view firstJsonPiece(std::string_view text) {
  if (text.size() <= kJsonPiece) return text;
  const auto isContinuation = [&](std::size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
  };
  std::size_t end = kJsonPiece;
  while (end > kJsonPiece - 3 && isContinuation(end)) --end;
  // Four of them belong to no character at the cut.
  return text.substr(0, isContinuation(end) ? kJsonPiece : end);
}

char* escapeJson(std::string_view text, char* out) {
  for (std::size_t at = 0;;) {
    out = copyPlain(text, at, out);
    if (at == text.size()) return out;
    do {
      out = putEscaped(decodeUtf8(text, at), out);
    } while (at < text.size() && !isPlain(static_cast<unsigned char>(text[at])));
  }
}

}  // namespace verdo
