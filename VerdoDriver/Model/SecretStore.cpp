#include "VerdoDriver/Model/SecretStore.h"

#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriver/Model/Masked.h"

#include <utility>

namespace verdo {

const char* nameOf(SecretAccount account) {
  return account == SecretAccount::driverToken ? "driver-token" : "llm-key";
}

SecretState SecretStore::state(SecretAccount account) {
  const auto secret = read(account);
  if (secret) return secret->value_or("").empty() ? SecretState::absent : SecretState::found;
  return secret.error().kind == SecretError::Kind::locked ? SecretState::locked
                                                          : SecretState::unavailable;
}

std::optional<std::string> SecretStore::last4(SecretAccount account) {
  const auto secret = read(account);
  if (!secret || secret->value_or("").empty()) return std::nullopt;
  return masked(**secret);
}

void SecretStore::listen(Listener listener) {
  MainThread::require("SecretStore::listen");
  *listener_ = std::move(listener);
}

SecretStore::Listener SecretStore::announcer() const {
  return [weak = std::weak_ptr(listener_)](SecretEvent event) {
    MainThread::post([event, weak] {
      const auto held = weak.lock();
      if (!held || !*held) return;
      const Listener listener = *held;  // a copy: it may put another one in its place
      listener(event);
    });
  };
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
