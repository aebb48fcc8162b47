#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace verdo {

/// An http or https URL, taken apart by the library that will contact it, so that what is judged
/// here is what is reached. A plain value. The one place that looks into URLs.
class Url {
 public:
  /// Absent for a text that cannot be requested. The scheme must be written in lower case, since
  /// only such a text is compared and shown; what is not encoded must be ASCII without blanks, and
  /// the host stands after two slashes.
  static std::optional<Url> parse(std::string_view text);

  bool isHttps() const { return https_; }
  /// The host as it is contacted: no user, no port; an IPv6 address in its brackets.
  const std::string& host() const { return host_; }
  std::optional<std::uint16_t> port() const { return port_; }
  /// User name or password stand in front of the host.
  bool hasUserInfo() const { return userInfo_; }
  bool hasQueryOrFragment() const { return queryOrFragment_; }
  /// "localhost", or 127.0.0.1 however it is written: the only hosts that plain http may go to.
  bool isPlainLoopback() const { return host_ == "127.0.0.1" || host_ == "localhost"; }
  /// This very computer, "[::1]" included.
  bool isLoopback() const { return isPlainLoopback() || host_ == "[::1]"; }

 private:
  Url() = default;

  std::string host_;
  std::optional<std::uint16_t> port_;
  bool https_ = false;
  bool userInfo_ = false;
  bool queryOrFragment_ = false;
};

/// Equal schemes and hosts, the latter whatever their case, and equal ports: both named, or both
/// left out. Never with a user name or password in either.
bool sameOrigin(const Url& a, const Url& b);

/// User name or password stand in the text, or could, since it cannot be read as a URL: it must
/// then neither be used nor repeated.
bool mayHoldUserInfo(std::string_view text);

/// The text for a log or a window: itself, but nothing of one that may hold a user name or
/// password.
std::string withoutUserInfo(const std::string& text);

/// The text with its scheme in lower case ("HTTPS://…" becomes "https://…"), which is how front
/// ends hand it on.
std::string lowerScheme(std::string url);

/// The text without slashes at its end.
std::string withoutTrailingSlashes(std::string url);

}  // namespace verdo
