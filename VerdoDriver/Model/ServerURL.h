#pragma once

#include <string>

#include <tl/expected.hpp>

namespace verdo {

/// Why an input cannot be used, in words for the user.
struct Refusal {
  std::string message;
  bool operator==(const Refusal&) const = default;
};

/// The text without blanks around it and slashes at its end.
[[nodiscard]] std::string trimmedServerUrl(const std::string& text);

/// The server URL that a user typed, without blanks around it and slashes at its end; or why the
/// driver must not use it. A refusal repeats the text, unless that may hold a password.
[[nodiscard]] tl::expected<std::string, Refusal> validateServerURL(const std::string& text,
                                                                   bool allowInsecure);

}  // namespace verdo
