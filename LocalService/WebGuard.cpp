#include "LocalService/WebGuard.h"

#include "LocalService/Routes.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <strings.h>

namespace verdo::local {
namespace {

bool isAddress(int family, std::string_view text) {
  in6_addr address{};
  return ::inet_pton(family, std::string(text).c_str(), &address) == 1;
}

/// Whether a value of Host names this machine or an address, with a port or without.
bool isTrustedHost(std::string_view host) {
  const bool bracketed = host.starts_with('[');
  const auto end = std::min(bracketed ? host.find(']') : host.find(':'), host.size());
  const auto name = host.substr(0, end);
  auto port = host.substr(end);
  if (bracketed && port.starts_with(']')) port.remove_prefix(1);
  const bool plainPort =
      port.empty() || (port.size() > 1 && port.front() == ':' &&
                       port.find_first_not_of("0123456789", 1) == std::string_view::npos);
  if (!plainPort) return false;
  if (bracketed) return isAddress(AF_INET6, name.substr(1));
  return isAddress(AF_INET, name) || strcasecmp(std::string(name).c_str(), "localhost") == 0;
}

}  // namespace

void refuseForeignPages(const httplib::Request& request) {
  const auto host = request.get_header_value("Host");
  if (request.get_header_value_count("Host") != 1 || !isTrustedHost(host)) {
    throw HttpError(421, "this service does not answer for the host \"" + host +
                             "\": use the address that it printed at start, or localhost");
  }
  if (!request.has_header("Origin")) return;
  const auto origin = request.get_header_value("Origin");
  const auto scheme = origin.find("://");
  if (scheme == std::string::npos || origin.substr(scheme + 3) != host) {
    throw HttpError(403, "this service does not answer the pages of " + origin);
  }
}

}  // namespace verdo::local
