#pragma once

#include <stdexcept>
#include <string>

#include <openssl/rand.h>

namespace verdo::local {

/// Bytes that nobody can guess. Throws std::runtime_error when the system has none.
inline std::string randomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
    throw std::runtime_error("the system gives no random bytes");
  }
  return bytes;
}

}  // namespace verdo::local
