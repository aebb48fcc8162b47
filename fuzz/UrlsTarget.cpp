#include "VerdoDriver/Model/SafeLink.h"
#include "VerdoDriver/Model/ServerURL.h"
#include "VerdoDriver/Model/WebLink.h"
#include "VerdoDriverCore/Values/Url.h"
#include "fuzz/Targets.h"

#include <algorithm>
#include <cctype>
#include <string>

#include <arpa/inet.h>

namespace verdo::fuzz {
namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

/// The host that is meant: decoded, and a number as four ("127.1" as 127.0.0.1).
std::string meant(const std::string& host) {
  std::string out;
  for (std::size_t at = 0; at < host.size(); ++at) {
    const bool isEncoded = host[at] == '%' && at + 2 < host.size();
    out += isEncoded ? static_cast<char>(std::stoi(host.substr(at + 1, 2), nullptr, 16)) : host[at];
    if (isEncoded) at += 2;
  }
  in_addr address{};
  return ::inet_aton(out.c_str(), &address) != 0 ? ::inet_ntoa(address) : out;
}

/// Scheme, host and port of an address as a browser takes them from its text.
struct Place {
  std::string scheme;
  bool hasUser = false;
  std::string host;
  std::string port;

  explicit Place(std::string_view url) {
    const auto colon = url.find("://");
    scheme = lowered(std::string(url.substr(0, colon)));
    url.remove_prefix(colon + 3);
    std::string_view authority = url.substr(0, url.find_first_of("/?#"));
    if (const auto at = authority.rfind('@'); at != authority.npos) {
      hasUser = true;
      authority.remove_prefix(at + 1);
    }
    const auto bracket = authority.find(']');
    const auto end = authority.find(':', bracket == authority.npos ? 0 : bracket);
    host = lowered(std::string(authority.substr(0, end)));
    if (end != authority.npos) port = authority.substr(end + 1);
  }

  bool isSameServer(const Place& other) const {
    return scheme == other.scheme && meant(host) == meant(other.host) &&
           number() == other.number() && !hasUser && !other.hasUser;
  }
  int number() const { return port.empty() ? -1 : std::stoi(port.substr(0, 8)); }
};

void parseOne(std::string_view text) {
  const std::string whole(text);
  if (const auto url = Url::parse(text)) {
    require(!url->host().empty(), "there is a host");
    require(url->host().find_first_of("/?#@ \\") == std::string::npos, "a host is only that");
    require(!(text.find('@') == text.npos && url->hasUserInfo()), "a user stands before an @");
    require(sameOrigin(*url, *url) != url->hasUserInfo(), "a URL is on its own server");
  }
  if (mayHoldUserInfo(lowerScheme(whole))) {
    require(withoutUserInfo(whole) != whole, "a password is not shown");
  }
  if (const auto link = WebLink::parse(whole)) {
    const Place place(*link);
    const auto url = Url::parse(*link);
    require(url.has_value(), "a link can be requested");
    require(url->hasUserInfo() == place.hasUser, "the user is the one that a browser sees");
    // The library decodes what is percent-encoded in a host, and shortens addresses.
    if (place.host.find('%') == std::string::npos && !place.host.starts_with('[') &&
        place.host.find_first_not_of("0123456789abcdefx.") != std::string::npos) {
      require(lowered(url->host()) == place.host, "the host is the one that a browser sees");
    }
    require(WebLink::parse(*link) == link, "a link stays itself");
  }
}

void checkServer(const std::string& text, bool allowInsecure) {
  const auto server = validateServerURL(text, allowInsecure);
  if (!server) {
    require(!server.error().message.empty(), "a refusal has a reason");
    return;
  }
  require(!server->ends_with('/') && server->find_first_of("?# ") == std::string::npos,
          "paths can be appended to it");
  const Place place(*server);
  require(!place.hasUser, "no password is stored");
  require(server->starts_with("https://") || allowInsecure || meant(place.host) == "localhost" ||
              meant(place.host) == "127.0.0.1",
          "plain http stays on this computer");
  require(validateServerURL(*server, allowInsecure) == server, "what is stored is good");
}

}  // namespace

void urls(std::string_view bytes) {
  const std::string server(takeLine(bytes));
  const std::string link(bytes);
  parseOne(server);
  parseOne(link);
  checkServer(server, false);
  checkServer(server, true);
  if (const auto allowed = SafeLink::allowed(link, server)) {
    require(Place(*allowed).scheme == "https" || Place(*allowed).isSameServer(Place(server)),
            "plain http goes to the server");
  }
  if (const auto page = WebLink::onServer(server, link)) {
    require(Place(*page).isSameServer(Place(server)), "a path stays on the server");
  }
}

}  // namespace verdo::fuzz
