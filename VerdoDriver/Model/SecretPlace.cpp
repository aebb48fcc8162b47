#include "VerdoDriver/Model/SecretPlace.h"

namespace verdo {

const char* nameOf(SecretPlace::Kind kind) {
  switch (kind) {
    case SecretPlace::Kind::secretService:
      return "secretService";
    case SecretPlace::Kind::keychain:
      return "keychain";
    case SecretPlace::Kind::files:
      break;
  }
  return "files";
}

std::string toText(const SecretPlace& place) {
  return nameOf(place.kind) + (place.provider.empty() ? "" : ":" + place.provider);
}

std::optional<SecretPlace> secretPlaceOf(const std::string& text) {
  const auto colon = text.find(':');
  const std::string provider = colon == text.npos ? "" : text.substr(colon + 1);
  for (const auto kind :
       {SecretPlace::Kind::secretService, SecretPlace::Kind::keychain, SecretPlace::Kind::files}) {
    if (text.substr(0, colon) == nameOf(kind)) return SecretPlace{kind, provider};
  }
  return std::nullopt;
}

}  // namespace verdo
