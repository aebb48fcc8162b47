#pragma once

#include "VerdoDriverCore/System/Sync.h"

#include <cstdint>
#include <map>
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
    locked,       ///< the store has to be unlocked first; what it holds is not known
    unavailable,  ///< nobody answers, or not in time; what it holds is not known
    failed,       ///< the store answered with an error
  };
  Kind kind = Kind::failed;
  std::int32_t status = 0;  ///< the system's own code, 0 where it has none
  std::string description;  ///< one sentence for the user
};

/// Where secrets survive between launches. Any thread may call; each call blocks for as long as
/// the store takes, which every implementation bounds. The main thread asks in the background
/// (Background.h), since a store may take seconds to tell that it is out of order.
class SecretStore {
 public:
  template <typename T>
  using Result = tl::expected<T, SecretError>;

  virtual ~SecretStore() = default;
  /// The secret; absent when nothing is stored.
  virtual Result<std::optional<std::string>> read(SecretAccount account) = 0;
  /// Stores the value in place of any earlier one; an empty value, too.
  virtual Result<void> write(const std::string& value, SecretAccount account) = 0;
  /// Forgets the secret; that there was none is success.
  virtual Result<void> remove(SecretAccount account) = 0;

  /// The masked form of the secret; absent when none or an empty one is stored, or on an error.
  std::optional<std::string> last4(SecretAccount account);
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
