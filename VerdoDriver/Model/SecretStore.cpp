#include "VerdoDriver/Model/SecretStore.h"

#include "VerdoDriver/Model/Masked.h"

namespace verdo {

const char* nameOf(SecretAccount account) {
  return account == SecretAccount::driverToken ? "driver-token" : "llm-key";
}

std::optional<std::string> SecretStore::last4(SecretAccount account) {
  const auto secret = read(account);
  if (!secret || secret->value_or("").empty()) return std::nullopt;
  return masked(**secret);
}

SecretStore::Result<std::optional<std::string>> MemorySecretStore::read(SecretAccount account) {
  MutexLock lock(lock_);
  const auto found = values_.find(account);
  if (found == values_.end()) return std::nullopt;
  return found->second;
}

SecretStore::Result<void> MemorySecretStore::write(const std::string& value,
                                                   SecretAccount account) {
  MutexLock lock(lock_);
  values_.insert_or_assign(account, value);
  return {};
}

SecretStore::Result<void> MemorySecretStore::remove(SecretAccount account) {
  MutexLock lock(lock_);
  values_.erase(account);
  return {};
}

}  // namespace verdo
