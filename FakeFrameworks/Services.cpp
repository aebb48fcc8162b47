// The keychain, power assertions, proxies and the unified log, which are C interfaces.

#include "FakeFrameworks/FakeCoreFoundation.h"
#include "FakeFrameworks/FakeFrameworks.h"

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include <CFNetwork/CFNetwork.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <Security/Security.h>
#include <os/log.h>

namespace verdo::fake {
namespace {

std::mutex guard;
std::vector<std::string> recorded;
std::map<std::string, std::int32_t> statuses;
std::atomic<int> live = 0;
std::atomic<int> tooMany = 0;
std::string errorMessage;
bool readsGiveText = false;
bool mayAsk = true;
IOPMAssertionID lastAssertion = 0;
std::vector<Proxy> proxies;

KeychainItems::key_type keyOf(CFDictionaryRef query) {
  const auto text = [&](CFStringRef key) {
    const auto* const value = CFDictionaryGetValue(query, key);
    return value ? object(value).text : "";
  };
  return {text(kSecAttrService), text(kSecAttrAccount)};
}

std::int32_t secCall(const char* name, CFDictionaryRef query) {
  record(std::string(name) + (mayAsk ? " " : " silently ") + describe(query));
  return statusOf(name);
}

}  // namespace

void reset() {
  const std::lock_guard lock(guard);
  recorded.clear();
  statuses.clear();
  keychain().clear();
  tooMany = 0;
  errorMessage.clear();
  readsGiveText = false;
  mayAsk = true;
  lastAssertion = 0;
}

std::vector<std::string> calls() {
  const std::lock_guard lock(guard);
  return recorded;
}
void record(std::string call) {
  const std::lock_guard lock(guard);
  recorded.push_back(std::move(call));
}
int liveObjects() { return live; }
int overReleases() { return tooMany; }
void countObject(int change) { live += change; }
void countOverRelease() { ++tooMany; }
void keepForEver(const void* memory) {
  static auto& kept = *new std::vector<const void*>;
  const std::lock_guard lock(guard);
  kept.push_back(memory);
}
void setStatus(const std::string& function, std::int32_t status) { statuses[function] = status; }
std::int32_t statusOf(const std::string& function) { return statuses[function]; }
KeychainItems& keychain() {
  static KeychainItems items;
  return items;
}
void setErrorMessage(const std::string& message) { errorMessage = message; }
void setProxies(std::vector<Proxy> all) { proxies = std::move(all); }
bool mayKeychainAsk() { return mayAsk; }
void setReadsGiveText(bool doThey) { readsGiveText = doThey; }

}  // namespace verdo::fake

using namespace verdo::fake;

#define CONSTANT(name) const CFStringRef name = constant(#name)
CONSTANT(kSecClass);
CONSTANT(kSecClassGenericPassword);
CONSTANT(kSecAttrService);
CONSTANT(kSecAttrAccount);
CONSTANT(kSecAttrLabel);
CONSTANT(kSecAttrAccessible);
CONSTANT(kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly);
CONSTANT(kSecAttrSynchronizable);
CONSTANT(kSecValueData);
CONSTANT(kSecReturnData);
CONSTANT(kSecMatchLimit);
CONSTANT(kSecMatchLimitOne);
CONSTANT(kSecMatchSearchList);
CONSTANT(kSecUseKeychain);
CONSTANT(kCFProxyTypeKey);
CONSTANT(kCFProxyHostNameKey);
CONSTANT(kCFProxyPortNumberKey);
CONSTANT(kCFProxyTypeNone);
CONSTANT(kCFProxyTypeHTTP);
CONSTANT(kCFProxyTypeHTTPS);
CONSTANT(kCFProxyTypeSOCKS);
CONSTANT(kCFProxyTypeAutoConfigurationURL);
const CFStringRef kFakeNoIdleSleepAssertion = constant("NoIdleSleepAssertion");

OSStatus SecItemCopyMatching(CFDictionaryRef query, CFTypeRef* result) {
  if (const auto status = secCall("SecItemCopyMatching", query)) return status;
  const auto found = keychain().find(keyOf(query));
  if (found == keychain().end()) return errSecItemNotFound;
  const std::string& bytes = found->second;
  *result = readsGiveText ? static_cast<CFTypeRef>(makeText(bytes))
                          : CFDataCreate(nullptr, reinterpret_cast<const UInt8*>(bytes.data()),
                                         static_cast<CFIndex>(bytes.size()));
  return errSecSuccess;
}

OSStatus SecItemAdd(CFDictionaryRef attributes, CFTypeRef*) {
  if (const auto status = secCall("SecItemAdd", attributes)) return status;
  const auto* const data = CFDictionaryGetValue(attributes, kSecValueData);
  const bool isNew = keychain().try_emplace(keyOf(attributes), object(data).text).second;
  return isNew ? errSecSuccess : errSecDuplicateItem;
}

OSStatus SecItemDelete(CFDictionaryRef query) {
  if (const auto status = secCall("SecItemDelete", query)) return status;
  return keychain().erase(keyOf(query)) ? errSecSuccess : errSecItemNotFound;
}

CFStringRef SecCopyErrorMessageString(OSStatus, void*) {
  return errorMessage.empty() ? nullptr : makeText(errorMessage);
}

OSStatus SecKeychainSetUserInteractionAllowed(Boolean isAllowed) {
  mayAsk = isAllowed;
  return errSecSuccess;
}

IOReturn IOPMAssertionCreateWithName(CFStringRef type, IOPMAssertionLevel level, CFStringRef name,
                                     IOPMAssertionID* id) {
  record("IOPMAssertionCreateWithName " + describe(type) + " " + std::to_string(level) + " " +
         describe(name));
  if (const auto status = statusOf("IOPMAssertionCreateWithName")) return status;
  *id = ++lastAssertion;
  return kIOReturnSuccess;
}

IOReturn IOPMAssertionRelease(IOPMAssertionID id) {
  record("IOPMAssertionRelease " + std::to_string(id));
  return statusOf("IOPMAssertionRelease");
}

os_log_t os_log_create(const char* subsystem, const char* category) {
  record(std::string("os_log_create ") + subsystem + " " + category);
  auto* const log = new std::string(category);
  keepForEver(log);
  return reinterpret_cast<os_log_t>(log);
}

void fakeLog(os_log_t log, os_log_type_t type, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const char* const text = va_arg(arguments, const char*);
  va_end(arguments);
  record("os_log " + *reinterpret_cast<const std::string*>(log) + " " + std::to_string(type) + " " +
         format + " " + text);
}

CFDictionaryRef CFNetworkCopySystemProxySettings() {
  return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                   &kCFTypeDictionaryValueCallBacks);
}

CFArrayRef CFNetworkCopyProxiesForURL(CFURLRef url, CFDictionaryRef) {
  record("CFNetworkCopyProxiesForURL " + describe(url));
  std::vector<CFTypeRef> made;
  for (const auto& proxy : proxies) {
    auto* const entry = CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                  &kCFTypeDictionaryValueCallBacks);
    for (const auto& [key, text] :
         {std::pair(kCFProxyTypeKey, proxy.type), std::pair(kCFProxyHostNameKey, proxy.host)}) {
      const auto* const value = makeText(text);
      CFDictionarySetValue(entry, key, value);
      CFRelease(value);
    }
    const auto* const port = new Object(kNumber, std::to_string(proxy.port));
    CFDictionarySetValue(entry, kCFProxyPortNumberKey, port);
    CFRelease(port);
    made.push_back(entry);
  }
  const auto* const all = CFArrayCreate(nullptr, made.data(), static_cast<CFIndex>(made.size()),
                                        &kCFTypeArrayCallBacks);
  for (const auto* const entry : made) CFRelease(entry);
  return all;
}
