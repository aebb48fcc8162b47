#include "VerdoDriverCore/Contract/ServerURLPolicy.h"

#include <algorithm>

namespace verdo::ServerURLPolicy {
namespace {

std::string hostOf(const std::string& server) {
  const auto scheme = server.rfind("://");
  std::string host = scheme == std::string::npos ? server : server.substr(scheme + 3);
  host = host.substr(0, host.find('/'));
  return host.substr(0, host.find(':'));
}

}  // namespace

std::optional<std::string> refusal(const std::string& server, bool insecure) {
  if (!server.starts_with("http://")) return std::nullopt;
  const std::string host = hostOf(server);
  if (insecure || host == "127.0.0.1" || host == "localhost" || host == "::1") return std::nullopt;
  return server +
         " is plain http off loopback — the token would travel in clear; use https:// or pass "
         "--insecure on a trusted network";
}

std::string lowerScheme(std::string server) {
  const auto end = server.find("://");
  if (end == std::string::npos) return server;
  std::transform(
      server.begin(), server.begin() + static_cast<std::ptrdiff_t>(end), server.begin(),
      [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return server;
}

}  // namespace verdo::ServerURLPolicy
