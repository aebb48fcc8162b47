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
std::string trimmedServerURL(const std::string& text);

/// The server URL that a user typed, without blanks around it and slashes at its end; or why the
/// driver must not use it.
tl::expected<std::string, Refusal> validateServerURL(const std::string& text, bool allowInsecure);

}  // namespace verdo
