#include "VerdoDriverCore/Contract/SecretScrub.h"

#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace verdo {
namespace {

/// Fewer characters of a secret at the end of a text are coincidence, and give nothing away.
constexpr std::size_t kMinBeginning = 3;

/// The byte that an escape at the front of the text stands for.
struct Escape {
  char byte = 0;
  std::size_t length = 0;  ///< of the escape
};

std::optional<Escape> numericEscape(std::string_view text, std::size_t prefix, std::size_t digits) {
  if (text.size() < prefix + digits) return std::nullopt;
  unsigned value = 0;
  const char* const begin = text.data() + prefix;
  const auto [end, error] = std::from_chars(begin, begin + digits, value, 16);
  if (error != std::errc() || end != begin + digits || value > 0xFF) return std::nullopt;
  return Escape{static_cast<char>(value), prefix + digits};
}

std::optional<Escape> escapeAt(std::string_view text) {
  if (text.starts_with('%')) return numericEscape(text, 1, 2);
  if (text.starts_with("\\u")) return numericEscape(text, 2, 4);
  if (text.size() < 2 || text.front() != '\\') return std::nullopt;
  return Escape{text[1], 2};
}

/// Whether the text ends in the middle of an escape at its front.
bool isCutEscape(std::string_view text) {
  if (text.starts_with('%')) return text.size() < 3;
  if (text.starts_with("\\u")) return text.size() < 6;
  return text == "\\";
}

/// Length of the part of the text that a secret at its front takes up; 0 when it does not begin
/// with one.
template <typename Step>
std::size_t matched(std::string_view text, std::string_view secret, const Step& step) {
  std::size_t at = 0;
  for (std::size_t i = 0; i < secret.size(); ++i) {
    const auto rest = text.substr(at);
    const std::size_t length = rest.empty() ? 0 : step(rest, secret[i]);
    if (length == 0) {
      return i >= kMinBeginning && (rest.empty() || isCutEscape(rest)) ? text.size() : 0;
    }
    at += length;
  }
  return at;
}

std::size_t matched(std::string_view text, std::string_view secret) {
  const auto plain = [](std::string_view rest, char byte) -> std::size_t {
    return rest.front() == byte ? 1 : 0;
  };
  const auto escaped = [&](std::string_view rest, char byte) -> std::size_t {
    const auto escape = escapeAt(rest);
    return escape && escape->byte == byte ? escape->length : plain(rest, byte);
  };
  return std::max(matched(text, secret, plain), matched(text, secret, escaped));
}

}  // namespace

SecretScrub::SecretScrub(std::initializer_list<std::string> secrets) {
  for (const auto& secret : secrets) add(secret);
}

void SecretScrub::add(std::string secret) {
  if (!secret.empty()) secrets_.push_back(std::move(secret));
}

std::string SecretScrub::scrubbed(std::string_view text) const {
  return excerpt(text, text.size());
}

std::string SecretScrub::excerpt(std::string_view text, std::size_t limit) const {
  std::string out;
  for (std::size_t at = 0; at < text.size() && limit > 0; --limit) {
    std::size_t length = 0;  // of the longest: one secret may be the beginning of another
    for (const auto& secret : secrets_) length = std::max(length, matched(text.substr(at), secret));
    if (length > 0) {
      out += "…";
      at += length;
    } else {
      appendUtf8(decodeUtf8(text, at), out);
    }
  }
  return out;
}

}  // namespace verdo
