#pragma once

#include "VerdoDriver/Model/SecretPlace.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <tl/expected.hpp>

namespace verdo {

/// The secrets that the app keeps.
enum class SecretAccount { driverToken, llmKey };
inline constexpr SecretAccount kSecretAccounts[] = {SecretAccount::driverToken,
                                                    SecretAccount::llmKey};

/// The name under which a store keeps the account: "driver-token" or "llm-key".
const char* nameOf(SecretAccount account);

/// Why a store could not do what it was asked to. That nothing is stored is no error.
struct SecretError {
  enum class Kind {
    locked,       ///< what it holds is not known, or must not be changed, until the user allows it
    unavailable,  ///< nobody answers, or not in time; what it holds is not known
    failed,       ///< the store answered with an error
  };
  Kind kind = Kind::failed;
  std::int32_t status = 0;  ///< the system's own code, 0 where it has none
  std::string description;  ///< one sentence for the user
};

/// What a store tells of an account without giving the secret away. Only `absent` may lead to a new
/// pairing.
enum class SecretState {
  found,
  absent,       ///< for sure: nothing, or an empty text, is stored
  locked,       ///< not known until the user unlocks the store
  unavailable,  ///< not known: nobody answers, or the store is out of order
};

/// What a store tells of its own accord.
enum class SecretEvent {
  changed,       ///< locked, unlocked, appeared or gone: ask again what it holds
  placeChanged,  ///< place() is another one than before: remember it
  promptOpened,  ///< a window of the system's waits for the user; show kSecretPromptText
  promptClosed,  ///< it was answered, or is not waited for any more
};

/// Shown while the system asks the user.
inline constexpr const char* kSecretPromptText =
    "Your password manager is waiting for you — answer its window within 2 minutes.";

/// Where secrets survive between launches. Any thread may call; each call blocks for as long as
/// the store takes, which every implementation bounds. The main thread asks in the background
/// (SecretTask.h), since a store may take seconds to tell that it is out of order.
///
/// Only what a user's action asks for may make the system ask the user in turn, in a window of its
/// own (a prompt): `unlock`, `write` and `remove`. They then block until it is answered, for two
/// minutes at most; SecretEvent tells of it. No password manager takes its window away decently, so
/// one that was not answered stays, and the next action waits for it instead of opening another.
/// Answered late, it unlocks; it never stores what a call that has failed was to store.
class SecretStore {
 public:
  template <typename T>
  using Result = tl::expected<T, SecretError>;
  using Listener = std::function<void(SecretEvent)>;

  virtual ~SecretStore() = default;
  /// The secret; absent when nothing is stored. Never asks the user.
  [[nodiscard]] virtual Result<std::optional<std::string>> read(SecretAccount account) = 0;
  /// Stores the value in place of any earlier one; an empty value, too. Success means that the
  /// store gives it back. May ask the user.
  [[nodiscard]] virtual Result<void> write(const std::string& value, SecretAccount account) = 0;
  /// Forgets the secret; that there was none is success. May ask the user.
  [[nodiscard]] virtual Result<void> remove(SecretAccount account) = 0;
  /// Makes the secrets readable, by asking the user where need be; nothing to do is success. What
  /// was refused or not answered in time is `locked`. To be called only on a user's action, before
  /// it reads.
  [[nodiscard]] virtual Result<void> unlock() { return {}; }
  /// Fails the call that waits for the user, now or later, with `locked`. Any thread, does not
  /// block; without such a call under way it does nothing.
  virtual void cancelPrompt() {}

  /// Where the secrets are kept; none as long as that is not decided, since nothing was stored yet.
  [[nodiscard]] virtual std::optional<SecretPlace> place() const { return std::nullopt; }
  /// Nothing is stored any more: where the next secret goes is open again.
  virtual void forgetPlace() {}
  /// What is known of an account. As `read`, it blocks and never asks the user.
  [[nodiscard]] SecretState state(SecretAccount account);
  /// The masked form of the secret; absent when none or an empty one is stored, or on an error.
  std::optional<std::string> last4(SecretAccount account);

  /// `listener` runs on the main thread for each event from now on, in place of an earlier one;
  /// an empty one ends that. Main thread.
  void listen(Listener listener);

 protected:
  /// What tells the listener of an event. Any thread may call it, also once the store is gone; the
  /// listener runs later, and only while the store is there.
  [[nodiscard]] Listener announcer() const;

 private:
  /// What it holds is touched on the main thread alone.
  const std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
};

/// Keeps secrets in memory, for tests and previews. Never fails.
class MemorySecretStore : public SecretStore {
 public:
  Result<std::optional<std::string>> read(SecretAccount account) override;
  Result<void> write(const std::string& value, SecretAccount account) override;
  Result<void> remove(SecretAccount account) override;

 private:
  Mutex lock_;
  std::map<SecretAccount, std::string> values_ GUARDED_BY(lock_);
};

}  // namespace verdo
