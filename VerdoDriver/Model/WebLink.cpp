#include "VerdoDriver/Model/WebLink.h"

#include "VerdoDriverCore/Values/Url.h"

#include <string_view>

namespace verdo::WebLink {
namespace {

/// Made of what RFC 3986 lets stand in a URL, "%" before two hexadecimal digits only. Libraries
/// and browsers differ in what they make of the rest, the backslash first of all.
bool isStrict(std::string_view text) {
  constexpr auto kNone = std::string_view::npos;
  constexpr std::string_view kHex = "0123456789abcdefABCDEF";
  constexpr std::string_view kAllowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~:/?#[]@!$&'()*+,;=%";
  if (text.find_first_not_of(kAllowed) != kNone) return false;
  for (auto at = text.find('%'); at != kNone; at = text.find('%', at + 1)) {
    const auto digits = text.substr(at + 1, 2);
    if (digits.size() != 2 || digits.find_first_not_of(kHex) != kNone) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> parse(const std::string& text) {
  auto url = lowerScheme(text);
  if (!isStrict(url) || !Url::parse(url)) return std::nullopt;
  return url;
}

bool sameOrigin(const std::string& a, const std::string& b) {
  const auto first = Url::parse(parse(a).value_or(""));
  const auto second = Url::parse(parse(b).value_or(""));
  return first && second && verdo::sameOrigin(*first, *second);
}

std::optional<std::string> onServer(const std::string& server, const std::string& path) {
  return sameOrigin(server, server + path) ? parse(server + path) : std::nullopt;
}

}  // namespace verdo::WebLink
