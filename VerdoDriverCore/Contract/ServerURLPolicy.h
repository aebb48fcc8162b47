#pragma once

#include <optional>
#include <string>

namespace verdo::ServerURLPolicy {

/// Why the driver must not send its token to this URL: it holds a user name or password (the text
/// then does not repeat it), or it is plain http to a host that is not loopback, unless
/// `insecure`. Absent when it may; a URL that cannot be read is left to whoever requests it. A
/// bracketed IPv6 loopback does not count as loopback.
std::optional<std::string> refusal(const std::string& server, bool insecure);

}  // namespace verdo::ServerURLPolicy
