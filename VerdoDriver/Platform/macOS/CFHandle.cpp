#include "VerdoDriver/Platform/macOS/CFHandle.h"

namespace verdo {

CFHandle<CFStringRef> cfText(const std::string& text) {
  return CFHandle<CFStringRef>(
      CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                              static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

std::optional<std::string> textOf(CFTypeRef object) {
  if (!object || CFGetTypeID(object) != CFStringGetTypeID()) return std::nullopt;
  const auto text = static_cast<CFStringRef>(object);
  const CFIndex most =
      CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
  std::string utf8(static_cast<std::size_t>(most), '\0');
  if (!CFStringGetCString(text, utf8.data(), most, kCFStringEncodingUTF8)) return std::nullopt;
  utf8.resize(utf8.find('\0'));
  return utf8;
}

}  // namespace verdo
