#pragma once

#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Model/SettingsStore.h"

#include <QObject>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// What the app knows of the stored secrets without holding them. The store is asked in the
/// background; until it answers, what was known last counts: a keyring that is locked, or slow, is
/// not an empty one. Main thread only.
class StoredSecrets : public QObject {
  Q_OBJECT
 public:
  struct Fact {
    SecretState state = SecretState::unavailable;
    std::optional<std::string> last4;  ///< masked; absent unless found
    bool operator==(const Fact&) const = default;
  };
  using Done = std::function<void()>;
  using Outcome = std::function<void(const SecretStore::Result<void>&)>;

  /// `settings`, which remembers what was known, outlives it.
  StoredSecrets(std::shared_ptr<SecretStore> store, SettingsStore& settings);

  /// A token is stored, or was when the store last answered.
  bool hasToken() const;
  bool hasKey() const;
  const Fact& token() const { return token_; }
  const Fact& key() const { return key_; }
  /// The store has answered, for sure, what it holds of the token.
  bool isKnown() const;

  /// Asks the store; `done` comes later, once changed() was emitted if need be.
  void refresh(Done done = {});
  /// Forgets a secret, for which the system may ask the user, and refreshes before `done`.
  void remove(SecretAccount account, Outcome done);
  /// Has the system ask the user to unlock the store, and refreshes before `done`.
  void unlock(Outcome done);

 Q_SIGNALS:
  void changed();

 private:
  struct Facts {
    Fact token;
    Fact key;
  };
  template <typename Work>
  void act(Work work, Outcome done);
  void take(const Facts& facts);

  const std::shared_ptr<SecretStore> store_;
  SettingsStore& settings_;
  Fact token_;
  Fact key_;
};

}  // namespace verdo
