#include "VerdoDriver/Model/StoredSecrets.h"

#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriver/Model/SecretTask.h"

#include <QPointer>
#include <utility>

namespace verdo {
namespace {

StoredSecrets::Fact factOf(SecretStore& store, SecretAccount account) {
  const auto state = store.state(account);
  return {state, state == SecretState::found ? store.last4(account) : std::nullopt};
}

/// What is not known now counts as it was when it was last known.
bool isThere(const StoredSecrets::Fact& fact, bool wasThere) {
  if (fact.state == SecretState::found) return true;
  return fact.state != SecretState::absent && wasThere;
}

}  // namespace

StoredSecrets::StoredSecrets(std::shared_ptr<SecretStore> store, SettingsStore& settings)
    : store_(std::move(store)), settings_(settings) {}

bool StoredSecrets::hasToken() const { return isThere(token_, settings_.hadToken()); }
bool StoredSecrets::hasKey() const { return isThere(key_, settings_.hadKey()); }

bool StoredSecrets::isKnown() const {
  return token_.state == SecretState::found || token_.state == SecretState::absent;
}

void StoredSecrets::refresh(Done done) {
  MainThread::require("StoredSecrets::refresh");
  const auto read = [store = store_]() -> SecretStore::Result<Facts> {
    return Facts{factOf(*store, SecretAccount::driverToken), factOf(*store, SecretAccount::llmKey)};
  };
  askSecretStore(read, [self = QPointer(this), done = std::move(done)](const auto& facts) {
    if (!self) return;
    // Without a thread to ask on, the store counts as out of order.
    self->take(facts ? *facts : Facts{});
    if (done) done();
  });
}

void StoredSecrets::remove(SecretAccount account, Outcome done) {
  act([store = store_, account] { return store->remove(account); }, std::move(done));
}

void StoredSecrets::unlock(Outcome done) {
  act([store = store_] { return store->unlock(); }, std::move(done));
}

template <typename Work>
void StoredSecrets::act(Work work, Outcome done) {
  MainThread::require("StoredSecrets::act");
  askSecretStore(std::move(work), [self = QPointer(this), done = std::move(done)](
                                      const SecretStore::Result<void>& result) {
    if (!self) return;
    self->refresh([done, result] {
      if (done) done(result);
    });
  });
}

void StoredSecrets::take(const Facts& facts) {
  const bool isSame = token_ == facts.token && key_ == facts.key;
  token_ = facts.token;
  key_ = facts.key;
  if (settings_.hadToken() != hasToken()) settings_.setHadToken(hasToken());
  if (settings_.hadKey() != hasKey()) settings_.setHadKey(hasKey());
  if (!isSame) Q_EMIT changed();
}

}  // namespace verdo
