#include "FakeFrameworks/FakeCoreFoundation.h"
#include "FakeFrameworks/FakeFrameworks.h"

#include <cstring>

#include <CoreFoundation/CoreFoundation.h>

namespace verdo::fake {

Object::Object(CFTypeID ofType, std::string itsText) : type(ofType), text(std::move(itsText)) {
  countObject(1);
}

void Object::letGo() {
  for (const auto& [key, value] : std::exchange(entries, {})) {
    if (key) CFRelease(key);
    CFRelease(value);
  }
  countObject(-1);
  keepForEver(this);
}

const Object& object(CFTypeRef ref) { return *static_cast<const Object*>(ref); }

CFStringRef constant(const char* name, CFTypeID type) {
  auto* const made = new Object(type, name);
  made->isConstant = true;
  made->letGo();
  return reinterpret_cast<CFStringRef>(made);
}

CFStringRef makeText(const std::string& text) {
  return reinterpret_cast<CFStringRef>(new Object(kString, text));
}

std::string describe(CFTypeRef ref) {
  const Object& it = object(ref);
  if (it.type == kData) return "<" + it.text + ">";
  if (it.type == kArray || it.type == kDictionary) {
    std::map<std::string, std::string> sorted;
    for (const auto& [key, value] : it.entries) {
      sorted[key ? describe(key) : std::to_string(sorted.size())] = describe(value);
    }
    std::string all;
    for (const auto& [key, value] : sorted) all += (all.empty() ? "" : " ") + key + "=" + value;
    return "{" + all + "}";
  }
  return it.text;
}

namespace {

std::map<std::string, std::string> bundleInfo;
// They live as long as the bundle does: nobody who is given them owns them.
std::map<std::string, CFStringRef> bundleTexts;

CFStringRef ofBundle(const std::string& text) {
  auto& made = bundleTexts[text];
  if (!made) made = constant(text.c_str());
  return made;
}

}  // namespace

void setBundle(std::map<std::string, std::string> info) { bundleInfo = std::move(info); }

}  // namespace verdo::fake

using namespace verdo::fake;

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFBooleanRef kCFBooleanTrue = reinterpret_cast<CFBooleanRef>(constant("true", kBoolean));
const CFBooleanRef kCFBooleanFalse = reinterpret_cast<CFBooleanRef>(constant("false", kBoolean));
const CFArrayCallBacks kCFTypeArrayCallBacks{};
const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks{};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks{};

CFTypeRef CFRetain(CFTypeRef ref) {
  ++object(ref).owners;
  return ref;
}

void CFRelease(CFTypeRef ref) {
  const Object& it = object(ref);
  if (it.isConstant) return;
  if (it.owners <= 0) return countOverRelease();
  if (--it.owners == 0) const_cast<Object&>(it).letGo();
}

CFTypeID CFGetTypeID(CFTypeRef ref) { return object(ref).type; }
CFTypeID CFStringGetTypeID() { return kString; }
CFTypeID CFDataGetTypeID() { return kData; }

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex size,
                                    CFStringEncoding encoding, Boolean) {
  if (encoding != kCFStringEncodingUTF8) return nullptr;
  return makeText({reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)});
}

CFIndex CFStringGetLength(CFStringRef ref) {
  return static_cast<CFIndex>(object(ref).text.size());  // at least as much as in UTF-16
}
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) { return 3 * length; }

Boolean CFStringGetCString(CFStringRef ref, char* buffer, CFIndex size, CFStringEncoding encoding) {
  const std::string& text = object(ref).text;
  if (encoding != kCFStringEncodingUTF8 || size <= static_cast<CFIndex>(text.size())) return 0;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return 1;
}

CFDataRef CFDataCreate(CFAllocatorRef, const UInt8* bytes, CFIndex size) {
  return reinterpret_cast<CFDataRef>(
      new Object(kData, {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)}));
}
const UInt8* CFDataGetBytePtr(CFDataRef ref) {
  return reinterpret_cast<const UInt8*>(object(ref).text.data());
}
CFIndex CFDataGetLength(CFDataRef ref) { return static_cast<CFIndex>(object(ref).text.size()); }

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex count,
                         const CFArrayCallBacks*) {
  auto* const made = new Object(kArray, "");
  for (CFIndex i = 0; i < count; ++i) made->entries.emplace_back(nullptr, CFRetain(values[i]));
  return reinterpret_cast<CFArrayRef>(made);
}

CFIndex CFArrayGetCount(CFArrayRef ref) { return static_cast<CFIndex>(object(ref).entries.size()); }
const void* CFArrayGetValueAtIndex(CFArrayRef ref, CFIndex index) {
  return object(ref).entries.at(static_cast<std::size_t>(index)).second;
}

CFTypeID CFNumberGetTypeID() { return kNumber; }
Boolean CFNumberGetValue(CFNumberRef ref, CFNumberType type, void* value) {
  if (type != kCFNumberIntType) return 0;
  *static_cast<int*>(value) = std::stoi(object(ref).text);
  return 1;
}

CFURLRef CFURLCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex size, CFStringEncoding,
                              CFURLRef) {
  const std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  if (text.find(' ') != text.npos) return nullptr;
  return reinterpret_cast<CFURLRef>(new Object(kUrl, text));
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex,
                                                 const CFDictionaryKeyCallBacks* keys,
                                                 const CFDictionaryValueCallBacks* values) {
  if (!keys || !values) return nullptr;  // such a one would own nothing
  return reinterpret_cast<CFMutableDictionaryRef>(new Object(kDictionary, ""));
}

void CFDictionarySetValue(CFMutableDictionaryRef ref, const void* key, const void* value) {
  const_cast<Object&>(object(ref)).entries.emplace_back(CFRetain(key), CFRetain(value));
}

const void* CFDictionaryGetValue(CFDictionaryRef ref, const void* key) {
  for (const auto& [itsKey, value] : object(ref).entries) {
    if (object(itsKey).text == object(key).text) return value;
  }
  return nullptr;
}

CFBundleRef CFBundleGetMainBundle() {
  static int bundle;
  return reinterpret_cast<CFBundleRef>(&bundle);
}

CFTypeRef CFBundleGetValueForInfoDictionaryKey(CFBundleRef, CFStringRef key) {
  const auto found = bundleInfo.find(object(key).text);
  if (found == bundleInfo.end()) return nullptr;
  if (found->second == "true") return kCFBooleanTrue;
  return ofBundle(found->second);
}
