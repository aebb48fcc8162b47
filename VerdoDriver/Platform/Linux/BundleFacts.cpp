#include "VerdoDriver/Platform/BundleFacts.h"

namespace verdo {

std::optional<std::string> bundleText(const std::string&) { return std::nullopt; }

}  // namespace verdo
