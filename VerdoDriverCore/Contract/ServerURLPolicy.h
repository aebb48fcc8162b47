#pragma once

#include <optional>
#include <string>

namespace verdo::ServerURLPolicy {

/// Why the driver must not send its token to this URL: it holds a user name or password (the text
/// then does not repeat it), or it is plain http to a host that is not loopback, unless
/// `insecure`. Absent when it may; a URL that cannot be read is left to whoever requests it. A
/// bracketed IPv6 loopback does not count as loopback.
std::optional<std::string> refusal(const std::string& server, bool insecure);

/// Why no path can be added to this URL of a server: it holds a query or a fragment. The text does
/// not repeat it, since a query may be a secret. Absent when one can.
std::optional<std::string> pathRefusal(const std::string& server);

/// Why the driver must not ask an LLM provider at this base URL, for the same reason. Absent when
/// it may; whatever else is wrong with the URL is left to ChatClient.
std::optional<std::string> providerRefusal(const std::string& base);

}  // namespace verdo::ServerURLPolicy
