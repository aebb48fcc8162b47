#pragma once

#include <string>
#include <utility>
#include <vector>

#include <CoreFoundation/CoreFoundation.h>

namespace verdo::fake {

enum : CFTypeID {
  kString = 7,
  kData = 20,
  kArray = 19,
  kDictionary = 18,
  kBoolean = 21,
  kNumber = 22,
  kUrl = 29
};

/// What every Core Foundation reference of the fake points at.
struct Object {
  Object(CFTypeID ofType, std::string itsText);
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  void letGo();  ///< by its last owner

  CFTypeID type;
  mutable int owners = 1;
  bool isConstant = false;
  std::string text;                                      ///< bytes, too
  std::vector<std::pair<CFTypeRef, CFTypeRef>> entries;  ///< owned; arrays have no keys
};

const Object& object(CFTypeRef ref);
/// One that is never released, and that nobody needs to.
CFStringRef constant(const char* name, CFTypeID type = kString);
/// One that the caller owns.
CFStringRef makeText(const std::string& text);
/// For tests to compare: "{kSecAttrAccount=driver-token kSecReturnData=true}".
std::string describe(CFTypeRef ref);

}  // namespace verdo::fake
