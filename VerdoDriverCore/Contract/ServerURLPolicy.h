#pragma once

#include <optional>
#include <string>

namespace verdo::ServerURLPolicy {

/// Why the driver must not send its token to this URL: plain http to a host that is not loopback,
/// unless `insecure`. Absent when it may. A bracketed IPv6 loopback does not count as loopback.
std::optional<std::string> refusal(const std::string& server, bool insecure);

/// The URL with its scheme in lower case ("HTTPS://…" becomes "https://…"), which is how front
/// ends hand it to the configuration.
std::string lowerScheme(std::string server);

}  // namespace verdo::ServerURLPolicy
