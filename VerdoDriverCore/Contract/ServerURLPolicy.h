#pragma once

#include <optional>
#include <string>

namespace verdo::ServerURLPolicy {

/// Why the driver must not send its token to this URL: it holds a user name or password (the text
/// then does not repeat it), or it is plain http to a host that is not loopback, unless
/// `insecure`. Absent when it may; a URL that cannot be read is left to whoever requests it. A
/// bracketed IPv6 loopback does not count as loopback.
std::optional<std::string> refusal(const std::string& server, bool insecure);

/// Why the driver must not ask an LLM provider at this base URL: it holds a query or a fragment,
/// behind which no path can be added. The text does not repeat it, since a query may be a key.
/// Absent when it may; whatever else is wrong with the URL is left to ChatClient.
std::optional<std::string> providerRefusal(const std::string& base);

}  // namespace verdo::ServerURLPolicy
