#pragma once

#include "VerdoDriver/Model/SecretStore.h"

#include <string>

#include <Security/Security.h>

namespace verdo {

/// Keeps the secrets in the user's keychain, as generic passwords of one service. Any thread may
/// call. The keychain may ask the user in a window of its own; reading forbids it to. It tells
/// nothing of its own accord, so no SecretEvent comes of it, and a window of its cannot be taken
/// away: cancelPrompt() does nothing.
class KeychainStore : public SecretStore {
 public:
  /// `keychain` is another one than the default, for tests; it is not taken, and outlives the
  /// store.
  explicit KeychainStore(std::string service, CFTypeRef keychain = nullptr);

  Result<std::optional<std::string>> read(SecretAccount account) override;
  Result<void> write(const std::string& value, SecretAccount account) override;
  Result<void> remove(SecretAccount account) override;
  Result<void> unlock() override;
  std::optional<SecretPlace> place() const override;

 private:
  class Query;
  class Turn;

  Query queryFor(SecretAccount account) const;
  Query searchFor(SecretAccount account) const;
  Result<std::optional<std::string>> fetch(SecretAccount account);
  Result<void> erase(SecretAccount account);

  const std::string service_;
  const CFTypeRef keychain_;
};

}  // namespace verdo
