#pragma once

// The part of IOKit's power management that the adapters use.

#include <CoreFoundation/CoreFoundation.h>

using IOReturn = int;
using IOPMAssertionID = std::uint32_t;
using IOPMAssertionLevel = std::uint32_t;

enum : IOReturn { kIOReturnSuccess = 0 };
enum : IOPMAssertionID { kIOPMNullAssertionID = 0 };
enum : IOPMAssertionLevel { kIOPMAssertionLevelOff = 0, kIOPMAssertionLevelOn = 255 };

extern "C" {
extern const CFStringRef kFakeNoIdleSleepAssertion;
#define kIOPMAssertionTypeNoIdleSleep kFakeNoIdleSleepAssertion

IOReturn IOPMAssertionCreateWithName(CFStringRef type, IOPMAssertionLevel level, CFStringRef name,
                                     IOPMAssertionID* id);
IOReturn IOPMAssertionRelease(IOPMAssertionID id);
}
