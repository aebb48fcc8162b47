#pragma once

#include "VerdoDriver/Platform/Linux/FileSecretStore.h"
#include "VerdoDriver/Platform/Linux/SecretServiceStore.h"

#include <optional>
#include <string>

namespace verdo {

struct SecretStoreOptions {
  std::string service;        ///< the keyring's attribute "service"
  std::string fileDirectory;  ///< for files, where there is no keyring
  SecretServiceLimits limits;
  /// Where secrets were stored so far, as the settings remember it. They stay there: a keyring that
  /// is missing today is not an empty one.
  std::optional<SecretPlace> usedBefore;
};

/// Keeps secrets in the keyring where there is one, else in files; place() says which, and the user
/// interface says so when it is in files. Any thread may call.
///
/// Decided is it by the first secret that is stored: it goes to files when there is no session bus,
/// nobody on it who keeps secrets, or no default keyring, and from then on all stay where it went.
/// Only a keyring that is not there any more when a new secret is to be stored gives way to files;
/// one that has no default collection open today does not. Until then both places are looked into.
class SecretStoreChoice : public SecretStore {
 public:
  explicit SecretStoreChoice(SecretStoreOptions options);

  Result<std::optional<std::string>> read(SecretAccount account) override EXCLUDES(lock_);
  Result<void> write(const std::string& value, SecretAccount account) override EXCLUDES(lock_);
  /// Forgets the secret in the files, too, whichever the place is.
  Result<void> remove(SecretAccount account) override EXCLUDES(lock_);
  Result<void> unlock() override EXCLUDES(lock_);
  void cancelPrompt() override { keyring_.cancelPrompt(); }
  std::optional<SecretPlace> place() const override EXCLUDES(lock_);
  void forgetPlace() override EXCLUDES(lock_);

 private:
  bool isIn(SecretPlace::Kind kind) const EXCLUDES(lock_);
  void decide(const SecretPlace& place) EXCLUDES(lock_);
  bool giveWayToFiles() EXCLUDES(lock_);

  SecretServiceStore keyring_;
  FileSecretStore files_;
  const std::string fileDirectory_;
  mutable Mutex lock_;
  std::optional<SecretPlace> place_ GUARDED_BY(lock_);
};

}  // namespace verdo
