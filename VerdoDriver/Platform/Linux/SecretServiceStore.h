#pragma once

#include "VerdoDriver/Model/SecretStore.h"

#include <chrono>

namespace verdo {

/// Keeps secrets in the user's keyring through the desktop's Secret Service (libsecret), as items
/// with the attributes "service" and "account" in the default collection.
///
/// Any thread may call. A call blocks for `limit` at most, its own connection to the service
/// included; a service that was restarted between two calls makes no difference. Nothing is ever
/// unlocked from here and no read asks the user anything: while the default collection is locked,
/// an item that is not seen may still be in it, so the answer is `locked`, not absent.
class SecretServiceStore : public SecretStore {
 public:
  /// Long enough for a keyring that has to be started first, and an answer within five seconds.
  static constexpr std::chrono::milliseconds kLimit{4500};

  explicit SecretServiceStore(std::string service, std::chrono::milliseconds limit = kLimit);

  /// A stored value that is not UTF-8 counts as absent.
  Result<std::optional<std::string>> read(SecretAccount account) override;
  /// Replaces the item in one step: should it fail, the old value is still there.
  Result<void> write(const std::string& value, SecretAccount account) override;
  Result<void> remove(SecretAccount account) override;

 private:
  const std::string service_;
  const std::chrono::milliseconds limit_;
};

}  // namespace verdo
