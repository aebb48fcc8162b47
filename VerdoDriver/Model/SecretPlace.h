#pragma once

#include <optional>
#include <string>

namespace verdo {

/// Where secrets are kept. The settings remember it: what is missing there today is not empty.
struct SecretPlace {
  enum class Kind { secretService, keychain, files };
  Kind kind = Kind::files;
  /// The program behind the Secret Service ("keepassxc", "gnome-keyring-daemon", "kwalletd5");
  /// empty elsewhere, and where it could not be told.
  std::string provider;

  bool operator==(const SecretPlace&) const = default;
};

/// "secretService", "keychain" or "files".
const char* nameOf(SecretPlace::Kind kind);
/// The form that settings hold: the kind's name, followed by ":" and the provider if there is one.
std::string toText(const SecretPlace& place);
/// The inverse; none for any other text.
std::optional<SecretPlace> secretPlaceOf(const std::string& text);

}  // namespace verdo
