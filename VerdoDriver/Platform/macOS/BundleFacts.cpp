#include "VerdoDriver/Platform/BundleFacts.h"

#include "VerdoDriver/Platform/macOS/CFHandle.h"

namespace verdo {

std::optional<std::string> bundleText(const std::string& key) {
  // What belongs to the bundle is not released.
  return textOf(CFBundleGetValueForInfoDictionaryKey(CFBundleGetMainBundle(), cfText(key).get()));
}

}  // namespace verdo
