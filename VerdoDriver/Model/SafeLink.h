#pragma once

#include <optional>
#include <string>

/// Decides which links of the server may be opened in the user's browser.
namespace verdo::SafeLink {

/// The address to open, when the link is https, or leads to the very server at `server`; absent
/// for every other link.
[[nodiscard]] std::optional<std::string> allowed(const std::optional<std::string>& link,
                                                 const std::string& server);

}  // namespace verdo::SafeLink
