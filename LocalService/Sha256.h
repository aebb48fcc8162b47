#pragma once

#include <string>
#include <string_view>

#include <openssl/evp.h>

namespace verdo::local {

/// Lowercase hexadecimal of some bytes.
inline std::string hex(std::string_view bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    text += digits[static_cast<unsigned char>(c) >> 4];
    text += digits[static_cast<unsigned char>(c) & 15];
  }
  return text;
}

/// SHA-256 as 64 lowercase hexadecimal digits.
inline std::string sha256Hex(std::string_view bytes) {
  std::string sum(32, '\0');
  EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(sum.data()), nullptr,
             EVP_sha256(), nullptr);
  return hex(sum);
}

}  // namespace verdo::local
