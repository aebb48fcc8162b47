#pragma once

#include <optional>
#include <string>

/// Addresses that come from elsewhere, read strictly: what two programs could read differently is
/// no address.
namespace verdo::WebLink {

/// The http or https address in the form to send or open: its scheme in lower case. Absent when it
/// is none, or holds a character that a URL must not hold.
[[nodiscard]] std::optional<std::string> parse(const std::string& text);

/// Whether both are addresses on one server (sameOrigin in Url.h).
[[nodiscard]] bool sameOrigin(const std::string& a, const std::string& b);

/// The address made by appending `path` to the text of the server's URL, in the form to send or
/// open. Absent when that is no address, or not one on the server: a path like
/// "@elsewhere.example/" must not lead away from it.
[[nodiscard]] std::optional<std::string> onServer(const std::string& server,
                                                  const std::string& path);

}  // namespace verdo::WebLink
