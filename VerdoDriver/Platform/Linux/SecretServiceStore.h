#pragma once

#include "VerdoDriver/Model/SecretStore.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace verdo {

class SecretServiceKeyring;

/// How long calls of the keyring may take.
struct SecretServiceLimits {
  /// A read, or each step of what a user's action asks for: enough for a keyring that has to be
  /// started first, and an answer within five seconds.
  std::chrono::milliseconds call{4500};
  /// All windows together that one user's action opens (kSecretPromptText tells the user).
  std::chrono::milliseconds prompt{120'000};
};

/// Keeps secrets in the user's keyring through the desktop's Secret Service, as items with the
/// attributes "service" and "account" in the default collection.
///
/// Any thread may call; one call waits for the other. All of them use one connection, since some
/// password managers grant access to a connection, and another one only when the bus, or the
/// program that keeps the secrets, has changed. That program is started only where
/// findSecretService allows it.
class SecretServiceStore : public SecretStore {
 public:
  /// `provider` is the program that has kept the secrets so far, empty when none has; `announce`
  /// is told of events in place of the store's own listener, unless it is empty.
  explicit SecretServiceStore(std::string service, SecretServiceLimits limits = {},
                              const std::string& provider = "", Listener announce = nullptr);
  ~SecretServiceStore() override;

  /// Absent only when the default collection is unlocked, no other unlocked one has the item, and
  /// no other program has kept the secrets so far. No window is opened: KWallet, which wants it, is
  /// asked to unlock only a wallet that is open. A stored value that is not UTF-8 counts as absent.
  Result<std::optional<std::string>> read(SecretAccount account) override EXCLUDES(calls_);
  /// Replaces the item in one step: should it fail, the old value is still there.
  Result<void> write(const std::string& value, SecretAccount account) override EXCLUDES(calls_);
  Result<void> remove(SecretAccount account) override EXCLUDES(calls_);
  Result<void> unlock() override EXCLUDES(calls_);
  void cancelPrompt() override EXCLUDES(state_);
  /// The Secret Service; its provider is that of the last write, or of the last item found.
  std::optional<SecretPlace> place() const override EXCLUDES(state_);

  /// Whether there is a keyring that a new secret could go to, locked or not.
  enum class Presence {
    none,          ///< no bus, or nobody on it who keeps secrets
    noCollection,  ///< it has no default collection
    usable,
    unknown,  ///< nobody answers in time
  };
  /// Blocks as `read` does, and opens no window.
  [[nodiscard]] Presence presence() EXCLUDES(calls_);

 private:
  class UserAction;

  /// Takes calls_, runs `work(keyring)`, and makes a result of what it returns or throws.
  template <typename Work>
  auto attempt(const char* operation, const char* account, const Work& work)
      -> Result<decltype(work(std::declval<SecretServiceKeyring&>()))>;

  void remember(const std::string& provider) EXCLUDES(state_);

  const SecretServiceLimits limits_;
  const Listener announce_;
  /// Held for the length of a call: the keyring is asked one thing at a time.
  Mutex calls_;
  const std::unique_ptr<SecretServiceKeyring> keyring_ GUARDED_BY(calls_);

  mutable Mutex state_;
  std::string provider_ GUARDED_BY(state_);
  /// What the user has asked for and is under way, if anything.
  UserAction* action_ GUARDED_BY(state_) = nullptr;
};

}  // namespace verdo
