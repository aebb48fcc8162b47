#pragma once

// The part of Core Foundation that the adapters use.

#include <cstddef>
#include <cstdint>

using CFTypeRef = const void*;
using CFIndex = long;
using CFTypeID = unsigned long;
using CFOptionFlags = unsigned long;
using CFStringEncoding = std::uint32_t;
using Boolean = unsigned char;
using UInt8 = std::uint8_t;
using OSStatus = std::int32_t;
using CFStringRef = const struct __CFString*;
using CFDataRef = const struct __CFData*;
using CFDictionaryRef = const struct __CFDictionary*;
using CFMutableDictionaryRef = struct __CFDictionary*;
using CFArrayRef = const struct __CFArray*;
using CFBooleanRef = const struct __CFBoolean*;
using CFNumberRef = const struct __CFNumber*;
using CFAllocatorRef = const struct __CFAllocator*;
using CFBundleRef = struct __CFBundle*;
using CFURLRef = const struct __CFURL*;
using CFArrayCallBacks = struct CFFakeCallBacks;
using CFDictionaryKeyCallBacks = struct CFFakeCallBacks;
using CFDictionaryValueCallBacks = struct CFFakeCallBacks;

enum : CFStringEncoding { kCFStringEncodingUTF8 = 0x08000100 };
using CFNumberType = CFIndex;
enum : CFNumberType { kCFNumberIntType = 9 };

struct CFRange {
  CFIndex location;
  CFIndex length;
};
inline CFRange CFRangeMake(CFIndex location, CFIndex length) { return {location, length}; }

struct CFFakeCallBacks {};

extern "C" {
extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
extern const CFArrayCallBacks kCFTypeArrayCallBacks;
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);
CFTypeID CFGetTypeID(CFTypeRef object);

CFTypeID CFStringGetTypeID();
CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex size,
                                    CFStringEncoding, Boolean isExternal);
CFIndex CFStringGetLength(CFStringRef);
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding);
Boolean CFStringGetCString(CFStringRef, char* buffer, CFIndex size, CFStringEncoding);

CFTypeID CFDataGetTypeID();
CFDataRef CFDataCreate(CFAllocatorRef, const UInt8* bytes, CFIndex size);
const UInt8* CFDataGetBytePtr(CFDataRef);
CFIndex CFDataGetLength(CFDataRef);

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex count,
                         const CFArrayCallBacks*);
CFIndex CFArrayGetCount(CFArrayRef);
const void* CFArrayGetValueAtIndex(CFArrayRef, CFIndex index);

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks*,
                                                 const CFDictionaryValueCallBacks*);
void CFDictionarySetValue(CFMutableDictionaryRef, const void* key, const void* value);
const void* CFDictionaryGetValue(CFDictionaryRef, const void* key);

CFTypeID CFNumberGetTypeID();
Boolean CFNumberGetValue(CFNumberRef, CFNumberType, void* value);

CFURLRef CFURLCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex size, CFStringEncoding,
                              CFURLRef base);

CFBundleRef CFBundleGetMainBundle();
CFTypeRef CFBundleGetValueForInfoDictionaryKey(CFBundleRef, CFStringRef key);
}
