#include "VerdoDriver/Platform/Linux/SecretServiceStore.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriver/Platform/Linux/SecretServiceError.h"
#include "VerdoDriver/Platform/Linux/SecretServiceKeyring.h"

#include <system_error>
#include <type_traits>

#include <fmt/format.h>

namespace verdo {

/// What the user has asked for, for as long as it takes. cancelPrompt ends its window, and any that
/// it would open after that.
class SecretServiceStore::UserAction {
 public:
  explicit UserAction(SecretServiceStore& store) : store_(store) {
    MutexLock lock(store_.state_);
    store_.action_ = this;
  }
  ~UserAction() {
    MutexLock lock(store_.state_);
    store_.action_ = nullptr;
  }
  UserAction(const UserAction&) = delete;
  UserAction& operator=(const UserAction&) = delete;

  void cancel() { g_cancellable_cancel(cancellable_.get()); }
  SecretPrompting prompting() const {
    return {std::chrono::steady_clock::now() + store_.limits_.prompt, cancellable_.get(),
            store_.announce_};
  }

 private:
  SecretServiceStore& store_;
  const GObjectPtr<GCancellable> cancellable_{g_cancellable_new()};
};

SecretServiceStore::SecretServiceStore(std::string service, SecretServiceLimits limits,
                                       const std::string& provider, Listener announce)
    : limits_(limits),
      announce_(announce ? std::move(announce) : announcer()),
      keyring_(std::make_unique<SecretServiceKeyring>(
          std::move(service), limits.call, provider,
          [announce = announce_] { announce(SecretEvent::changed); })),
      provider_(provider) {}

SecretServiceStore::~SecretServiceStore() = default;

template <typename Work>
auto SecretServiceStore::attempt(const char* operation, const char* account, const Work& work)
    -> Result<decltype(work(std::declval<SecretServiceKeyring&>()))> {
  MutexLock lock(calls_);
  const GLibContext::Use use(keyring_->context());
  const auto failure = [&](const SecretError& error) {
    AppLog::keychain.error(fmt::format("[SecretServiceStore] {}{}{} failed: {}", operation,
                                       *account ? " " : "", account, error.status));
    return tl::make_unexpected(error);
  };
  try {
    if constexpr (std::is_void_v<decltype(work(*keyring_))>) {
      work(*keyring_);
      remember(keyring_->provider());
      return {};
    } else {
      auto value = work(*keyring_);
      remember(keyring_->provider());
      return value;
    }
  } catch (const SecretError& error) {
    if (error.kind != SecretError::Kind::locked) keyring_->forgetSession();
    return failure(error);
  } catch (const std::system_error& error) {
    return failure({SecretError::Kind::unavailable, error.code().value(),
                    fmt::format("The keyring cannot be asked: {}", error.what())});
  }
}

void SecretServiceStore::remember(const std::string& provider) {
  MutexLock lock(state_);
  provider_ = provider;
}

SecretStore::Result<std::optional<std::string>> SecretServiceStore::read(SecretAccount account) {
  return attempt("read", nameOf(account),
                 [account](SecretServiceKeyring& keyring) { return keyring.read(account); });
}

SecretStore::Result<void> SecretServiceStore::write(const std::string& value,
                                                    SecretAccount account) {
  const auto written =
      attempt("write", nameOf(account), [&, account](SecretServiceKeyring& keyring) {
        const UserAction action(*this);
        keyring.write(value, account, action.prompting());
      });
  if (written) {
    AppLog::keychain.info(
        fmt::format("[SecretServiceStore] stored {} ({})", nameOf(account), masked(value)));
  }
  return written;
}

SecretStore::Result<void> SecretServiceStore::remove(SecretAccount account) {
  const auto removed =
      attempt("delete", nameOf(account), [this, account](SecretServiceKeyring& keyring) {
        const UserAction action(*this);
        return keyring.remove(account, action.prompting());
      });
  if (!removed) return tl::make_unexpected(removed.error());
  if (*removed) {
    AppLog::keychain.info(fmt::format("[SecretServiceStore] removed {}", nameOf(account)));
  }
  return {};
}

SecretStore::Result<void> SecretServiceStore::unlock() {
  return attempt("unlock", "", [this](SecretServiceKeyring& keyring) {
    const UserAction action(*this);
    keyring.unlock(action.prompting());
  });
}

void SecretServiceStore::cancelPrompt() {
  MutexLock lock(state_);
  if (action_) action_->cancel();
}

std::optional<SecretPlace> SecretServiceStore::place() const {
  MutexLock lock(state_);
  return SecretPlace{SecretPlace::Kind::secretService, provider_};
}

SecretServiceStore::Presence SecretServiceStore::presence() {
  MutexLock lock(calls_);
  const GLibContext::Use use(keyring_->context());
  try {
    return keyring_->hasDefaultCollection() ? Presence::usable : Presence::noCollection;
  } catch (const SecretServiceMissing&) {
    return Presence::none;
  } catch (const SecretError&) {
    return Presence::unknown;
  } catch (const std::system_error&) {
    return Presence::unknown;  // no room for a thread
  }
}

}  // namespace verdo
