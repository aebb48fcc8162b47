#pragma once

#include <string>
#include <string_view>

namespace verdo::local {

/// `prefix` and 48 hexadecimal digits that nobody can guess. Throws std::runtime_error when the
/// system has no random bytes.
std::string randomSecret(std::string_view prefix);

/// Whether both are the same, in a time that does not tell where they differ.
bool sameSecret(std::string_view given, std::string_view secret);

/// Whether the value of an Authorization header is "Bearer " and the secret.
bool isBearer(std::string_view authorization, std::string_view secret);

}  // namespace verdo::local
