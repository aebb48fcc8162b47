#include "VerdoDriver/Platform/macOS/KeychainStore.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriver/Platform/macOS/CFHandle.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

SecretError::Kind kindOf(OSStatus status) {
  switch (status) {
    case errSecInteractionNotAllowed:
    case errSecAuthFailed:
    case errSecUserCanceled:
      return SecretError::Kind::locked;
    case errSecNotAvailable:
      return SecretError::Kind::unavailable;
    default:
      return SecretError::Kind::failed;
  }
}

/// The error of a call that is named in the log together with the account.
tl::unexpected<SecretError> keychainError(const char* operation, SecretAccount account,
                                          OSStatus status) {
  AppLog::keychain.error(
      fmt::format("[KeychainStore] {} {} failed: {}", operation, nameOf(account), status));
  const CFHandle<CFStringRef> told(SecCopyErrorMessageString(status, nullptr));
  const auto message = textOf(told.get()).value_or(fmt::format("OSStatus {}", status));
  return tl::unexpected(
      SecretError{kindOf(status), status, fmt::format("Keychain: {} ({})", message, status)});
}

CFHandle<CFDataRef> dataOf(const std::string& bytes) {
  return CFHandle<CFDataRef>(CFDataCreate(kCFAllocatorDefault,
                                          reinterpret_cast<const UInt8*>(bytes.data()),
                                          static_cast<CFIndex>(bytes.size())));
}

/// Absent for what is no data, or no UTF-8.
std::optional<std::string> secretIn(CFTypeRef object) {
  if (!object || CFGetTypeID(object) != CFDataGetTypeID()) return std::nullopt;
  const auto data = static_cast<CFDataRef>(object);
  std::string secret(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                     static_cast<std::size_t>(CFDataGetLength(data)));
  if (repairUtf8(secret) != secret) return std::nullopt;
  return secret;
}

}  // namespace

/// What the keychain is asked for.
class KeychainStore::Query {
 public:
  Query()
      : entries_(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                           &kCFTypeDictionaryValueCallBacks)) {}

  void set(CFStringRef key, CFTypeRef value) { CFDictionarySetValue(entries_.get(), key, value); }
  // Of another name: a literal would rather become a CFTypeRef than a std::string.
  void setText(CFStringRef key, const std::string& text) { set(key, cfText(text).get()); }
  CFDictionaryRef get() const { return entries_.get(); }

 private:
  CFHandle<CFMutableDictionaryRef> entries_;
};

/// One use of the keychain. Whether the keychain may ask the user is settled for the whole process,
/// so uses come one after the other.
class KeychainStore::Turn {
 public:
  explicit Turn(bool mayAsk) : lock_(guard()) { allow(mayAsk); }
  ~Turn() { allow(true); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  static Mutex& guard() {
    static Mutex mutex;
    return mutex;
  }
  static void allow(bool mayAsk) {
    // Deprecated along with keychains in files, of which the default one is; what took its place
    // is for the others.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
    static_cast<void>(SecKeychainSetUserInteractionAllowed(mayAsk));
#pragma clang diagnostic pop
  }

  const MutexLock lock_;
};

KeychainStore::KeychainStore(std::string service, CFTypeRef keychain)
    : service_(std::move(service)), keychain_(keychain) {}

KeychainStore::Query KeychainStore::queryFor(SecretAccount account) const {
  Query query;
  query.set(kSecClass, kSecClassGenericPassword);
  query.setText(kSecAttrService, service_);
  query.setText(kSecAttrAccount, nameOf(account));
  return query;
}

KeychainStore::Query KeychainStore::searchFor(SecretAccount account) const {
  auto query = queryFor(account);
  if (keychain_) {
    CFTypeRef only = keychain_;
    const CFHandle<CFArrayRef> list(
        CFArrayCreate(kCFAllocatorDefault, &only, 1, &kCFTypeArrayCallBacks));
    query.set(kSecMatchSearchList, list.get());
  }
  return query;
}

SecretStore::Result<std::optional<std::string>> KeychainStore::fetch(SecretAccount account) {
  auto query = searchFor(account);
  query.set(kSecReturnData, kCFBooleanTrue);
  query.set(kSecMatchLimit, kSecMatchLimitOne);
  CFTypeRef found = nullptr;
  const OSStatus status = SecItemCopyMatching(query.get(), &found);
  const CFHandle<CFTypeRef> owned(found);
  if (status == errSecItemNotFound) return std::nullopt;
  if (status != errSecSuccess) return keychainError("read", account, status);
  return secretIn(owned.get());
}

SecretStore::Result<std::optional<std::string>> KeychainStore::read(SecretAccount account) {
  const Turn turn(false);
  return fetch(account);
}

SecretStore::Result<void> KeychainStore::write(const std::string& value, SecretAccount account) {
  const Turn turn(true);
  // Not changed in place: so label and accessibility of an item that other means made are renewed.
  if (auto erased = erase(account); !erased) return erased;
  auto item = queryFor(account);
  item.setText(kSecAttrLabel, fmt::format("Verdo Driver {}", nameOf(account)));
  item.set(kSecAttrAccessible, kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly);
  item.set(kSecAttrSynchronizable, kCFBooleanFalse);
  item.set(kSecValueData, dataOf(value).get());
  if (keychain_) item.set(kSecUseKeychain, keychain_);
  const OSStatus status = SecItemAdd(item.get(), nullptr);
  if (status != errSecSuccess) return keychainError("write", account, status);
  AppLog::keychain.info(
      fmt::format("[KeychainStore] stored {} ({})", nameOf(account), masked(value)));
  return {};
}

SecretStore::Result<void> KeychainStore::remove(SecretAccount account) {
  const Turn turn(true);
  return erase(account);
}

SecretStore::Result<void> KeychainStore::erase(SecretAccount account) {
  auto query = searchFor(account);
  const OSStatus status = SecItemDelete(query.get());
  if (status == errSecItemNotFound) return {};
  if (status != errSecSuccess) return keychainError("delete", account, status);
  AppLog::keychain.info(fmt::format("[KeychainStore] removed {}", nameOf(account)));
  return {};
}

/// An item may ask even though the keychain is open, as for a program that has changed: so what
/// makes them readable is to read them.
SecretStore::Result<void> KeychainStore::unlock() {
  const Turn turn(true);
  for (const auto account : kSecretAccounts) {
    if (const auto secret = fetch(account); !secret) return tl::unexpected(secret.error());
  }
  return {};
}

std::optional<SecretPlace> KeychainStore::place() const {
  return SecretPlace{SecretPlace::Kind::keychain, ""};
}

}  // namespace verdo
