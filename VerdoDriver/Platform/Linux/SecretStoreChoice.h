#pragma once

#include "VerdoDriver/Platform/Linux/SecretServiceStore.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// Where the secrets of this session are kept; the user interface says so when it is in files.
enum class SecretStoreKind { secretService, files };

struct SecretStoreOptions {
  std::string service;        ///< the keyring's attribute "service"
  std::string fileDirectory;  ///< for files, where there is no keyring
  /// Of the choice, and of each call.
  std::chrono::milliseconds limit = SecretServiceStore::kLimit;
  /// Where secrets were stored before, if the app remembers. They stay there: a keyring that is
  /// missing today is not an empty one.
  std::optional<SecretStoreKind> usedBefore;
};

struct SecretStoreChoice {
  SecretStoreKind kind;
  std::unique_ptr<SecretStore> store;
};

/// The Secret Service when the session bus has one or could start one, be it as slow as it may;
/// files when there is no session bus, or nobody on it who keeps secrets; the earlier place when
/// there is one. Any thread may call; it
/// blocks for `limit` at most, usually for milliseconds.
SecretStoreChoice makeSecretStore(const SecretStoreOptions& options);

}  // namespace verdo
