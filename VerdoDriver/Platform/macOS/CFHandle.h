#pragma once

#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include <CoreFoundation/CoreFoundation.h>

namespace verdo {

struct CFReleaser {
  void operator()(CFTypeRef object) const { CFRelease(object); }
};

/// Owns what a function with Create or Copy in its name gives, and lets go of it at the end. Empty
/// where that gave nothing.
template <typename Ref>
using CFHandle = std::unique_ptr<std::remove_pointer_t<Ref>, CFReleaser>;

/// `text` is UTF-8; empty for any other.
CFHandle<CFStringRef> cfText(const std::string& text);
/// The text as UTF-8; absent for what is no text. Does not take `object`, which may be null.
std::optional<std::string> textOf(CFTypeRef object);

}  // namespace verdo
