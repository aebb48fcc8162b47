#include "LocalService/Base64.h"

#include <limits>

#include <openssl/evp.h>

namespace verdo::local {

std::optional<std::string> decodeBase64(std::string_view text) {
  constexpr std::string_view kSigns =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  constexpr std::size_t kMaxPadding = 2;
  // The library takes padding anywhere, and counts it as bytes.
  const auto signs = text.find_last_not_of('=') + 1;
  const auto padding = text.size() - signs;
  if (text.size() % 4 != 0 || padding > kMaxPadding ||
      text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) ||
      text.substr(0, signs).find_first_not_of(kSigns) != std::string_view::npos) {
    return std::nullopt;
  }
  std::string bytes(text.size() / 4 * 3, '\0');
  EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                  reinterpret_cast<const unsigned char*>(text.data()),
                  static_cast<int>(text.size()));
  bytes.resize(bytes.size() - padding);
  return bytes;
}

}  // namespace verdo::local
