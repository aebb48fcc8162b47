#pragma once

#include <optional>
#include <string>

namespace verdo {

/// A text of the app bundle's Info.plist. Absent where the key is missing or holds no text, and
/// where programs come without a bundle.
std::optional<std::string> bundleText(const std::string& key);

}  // namespace verdo
