#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace verdo::local {

/// The bytes that a base64 text stands for, padded to a multiple of four signs and without any
/// space. Absent: it is not such a text.
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace verdo::local
