#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>

#include <fmt/format.h>

namespace verdo {
namespace {

/// What a lead byte demands: how many bytes follow, and the range of the first of them, which is
/// where overlong forms, surrogates and values above U+10FFFF are excluded (Unicode table 3-7).
struct Lead {
  int following = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
};

Lead classify(unsigned char byte) {
  if (byte >= 0xC2 && byte <= 0xDF) return {1};
  if (byte == 0xE0) return {2, 0xA0, 0xBF};
  if (byte == 0xED) return {2, 0x80, 0x9F};
  if (byte >= 0xE1 && byte <= 0xEF) return {2};
  if (byte == 0xF0) return {3, 0x90, 0xBF};
  if (byte >= 0xF1 && byte <= 0xF3) return {3};
  if (byte == 0xF4) return {3, 0x80, 0x8F};
  return {};
}

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); }

/// Line and paragraph separator, and the embeddings, overrides and isolates of bidirectional text.
bool breaksLineOrOrder(char32_t c) {
  return (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

bool isPrintableAscii(char byte) { return byte >= ' ' && byte <= '~'; }

/// The text, repaired, with the characters that `isUnsafe` names written as numbers.
template <typename IsUnsafe>
std::string writtenOut(std::string_view text, const IsUnsafe& isUnsafe) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const auto begin = text.begin() + static_cast<std::ptrdiff_t>(at);
    const auto plain = std::find_if_not(begin, text.end(), isPrintableAscii);
    out.append(begin, plain);
    at = static_cast<std::size_t>(plain - text.begin());
    if (at == text.size()) break;
    const char32_t c = decodeUtf8(text, at);
    if (!isUnsafe(c)) {
      appendUtf8(c, out);
    } else if (c < 0x100) {
      out += fmt::format("\\x{:02x}", static_cast<unsigned>(c));
    } else {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    }
  }
  return out;
}

}  // namespace

char32_t decodeUtf8(std::string_view text, std::size_t& at) {
  const auto lead = static_cast<unsigned char>(text[at++]);
  if (lead < 0x80) return lead;
  const Lead rule = classify(lead);
  if (rule.following == 0) return kReplacementCharacter;
  char32_t character = lead & (0x3Fu >> rule.following);
  unsigned char low = rule.low;
  unsigned char high = rule.high;
  for (int i = 0; i < rule.following; ++i) {
    if (at == text.size()) return kReplacementCharacter;
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < low || byte > high) return kReplacementCharacter;
    character = (character << 6) | (byte & 0x3Fu);
    low = 0x80;
    high = 0xBF;
    ++at;
  }
  return character;
}

void appendUtf8(char32_t character, std::string& out) {
  const auto put = [&](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (character < 0x80) {
    put(character);
  } else if (character < 0x800) {
    put(0xC0 | (character >> 6));
    put(0x80 | (character & 0x3F));
  } else if (character < 0x10000) {
    put(0xE0 | (character >> 12));
    put(0x80 | ((character >> 6) & 0x3F));
    put(0x80 | (character & 0x3F));
  } else {
    put(0xF0 | (character >> 18));
    put(0x80 | ((character >> 12) & 0x3F));
    put(0x80 | ((character >> 6) & 0x3F));
    put(0x80 | (character & 0x3F));
  }
}

bool hasControlByte(std::string_view bytes) {
  return std::any_of(bytes.begin(), bytes.end(), [](char byte) {
    return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F;
  });
}

std::string repairUtf8(std::string_view bytes) { return firstCharacters(bytes, bytes.size()); }

std::string withoutControls(std::string_view text) {
  return writtenOut(text, [](char32_t c) { return isControl(c) && c != '\n' && c != '\t'; });
}

std::string forLog(std::string_view text) {
  return writtenOut(text, [](char32_t c) { return isControl(c) || breaksLineOrOrder(c); });
}

std::string firstCharacters(std::string_view bytes, std::size_t limit) {
  std::string out;
  out.reserve(bytes.size() < limit ? bytes.size() : limit);
  for (std::size_t at = 0; at < bytes.size() && limit > 0; --limit) {
    appendUtf8(decodeUtf8(bytes, at), out);
  }
  return out;
}

std::string lastCharacters(std::string_view bytes, std::size_t limit) {
  const std::size_t total = countCharacters(bytes);
  std::size_t at = 0;
  for (std::size_t skip = total > limit ? total - limit : 0; skip > 0; --skip) {
    decodeUtf8(bytes, at);
  }
  return repairUtf8(bytes.substr(at));
}

std::size_t countCharacters(std::string_view bytes) {
  std::size_t count = 0;
  for (std::size_t at = 0; at < bytes.size(); ++count) decodeUtf8(bytes, at);
  return count;
}

}  // namespace verdo
