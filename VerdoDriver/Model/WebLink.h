#pragma once

#include <QUrl>
#include <optional>
#include <string>

/// Addresses that come from elsewhere, read strictly: what two programs could read differently is
/// no address.
namespace verdo::WebLink {

/// The address, when it has a scheme and a host.
std::optional<QUrl> parse(const std::string& text);

/// Equal schemes, hosts and user parts, and equal ports: both named, or both left out.
bool sameOrigin(const QUrl& a, const QUrl& b);

/// The http or https address made by appending `path` to the text of the server's URL, in the form
/// to send or open. Absent when that is no address, or not one on the server: a path like
/// "@elsewhere.example/" must not lead away from it.
std::optional<std::string> onServer(const std::string& server, const std::string& path);

}  // namespace verdo::WebLink
