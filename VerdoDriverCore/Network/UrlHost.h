#pragma once

#include <string>
#include <string_view>

namespace verdo {

/// The host of a URL, as a view into it, without user, port and the brackets' outside; empty when
/// there is none. It looks for separators only and judges nothing.
inline std::string_view hostOfUrl(std::string_view url) {
  const auto scheme = url.find("://");
  if (scheme != std::string_view::npos) url.remove_prefix(scheme + 3);
  url = url.substr(0, url.find_first_of("/?#"));
  if (const auto user = url.rfind('@'); user != std::string_view::npos) url.remove_prefix(user + 1);
  // A colon inside the brackets of an IPv6 address does not begin a port.
  return url.substr(0, url.find(':', url.starts_with('[') ? url.find(']') : 0));
}

}  // namespace verdo
