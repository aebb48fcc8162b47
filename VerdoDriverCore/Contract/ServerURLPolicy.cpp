#include "VerdoDriverCore/Contract/ServerURLPolicy.h"

#include "VerdoDriverCore/Values/Url.h"

namespace verdo::ServerURLPolicy {
namespace {

std::optional<std::string> queryRefusal(const char* what, const std::string& url) {
  if (url.find_first_of("?#") == std::string::npos) return std::nullopt;
  return std::string(what) +
         " must not hold a query or fragment; leave out what begins with ? or #";
}

}  // namespace

std::optional<std::string> refusal(const std::string& server, bool insecure) {
  if (mayHoldUserInfo(server)) return "a server URL must not hold a user name or password";
  if (!server.starts_with("http://") || insecure) return std::nullopt;
  const auto url = Url::parse(server);
  if (url && url->isPlainLoopback()) return std::nullopt;
  return server +
         " is plain http off loopback — the token would travel in clear; use https:// or pass "
         "--insecure on a trusted network";
}

std::optional<std::string> pathRefusal(const std::string& server) {
  return queryRefusal("a server URL", server);
}

std::optional<std::string> providerRefusal(const std::string& base) {
  return queryRefusal("an LLM base URL", base);
}

}  // namespace verdo::ServerURLPolicy
