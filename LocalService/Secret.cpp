#include "LocalService/Secret.h"

#include "LocalService/Random.h"
#include "LocalService/Sha256.h"

#include <openssl/crypto.h>

namespace verdo::local {

std::string randomSecret(std::string_view prefix) {
  return std::string(prefix) + hex(randomBytes(24));
}

bool sameSecret(std::string_view given, std::string_view secret) {
  return given.size() == secret.size() &&
         CRYPTO_memcmp(given.data(), secret.data(), secret.size()) == 0;
}

bool isBearer(std::string_view authorization, std::string_view secret) {
  constexpr std::string_view kScheme = "Bearer ";
  return authorization.starts_with(kScheme) &&
         sameSecret(authorization.substr(kScheme.size()), secret);
}

}  // namespace verdo::local
