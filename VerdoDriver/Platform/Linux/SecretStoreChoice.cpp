#include "VerdoDriver/Platform/Linux/SecretStoreChoice.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/Linux/SecretServiceError.h"

#include <utility>

namespace verdo {
namespace {

using Kind = SecretPlace::Kind;
using Presence = SecretServiceStore::Presence;

std::string providerOf(const std::optional<SecretPlace>& place) {
  return place ? place->provider : "";
}

}  // namespace

SecretStoreChoice::SecretStoreChoice(SecretStoreOptions options)
    : keyring_(options.service, options.limits, providerOf(options.usedBefore), announcer()),
      files_(options.fileDirectory),
      fileDirectory_(std::move(options.fileDirectory)),
      place_(std::move(options.usedBefore)) {}

std::optional<SecretPlace> SecretStoreChoice::place() const {
  MutexLock lock(lock_);
  return place_;
}

void SecretStoreChoice::forgetPlace() {
  files_.removeDirectory();
  MutexLock lock(lock_);
  place_.reset();
}

bool SecretStoreChoice::isIn(Kind kind) const {
  const auto now = place();
  return now && now->kind == kind;
}

void SecretStoreChoice::decide(const SecretPlace& place) {
  {
    MutexLock lock(lock_);
    if (place_ == place) return;
    place_ = place;
  }
  AppLog::keychain.info(place.kind == Kind::files
                            ? "[SecretStore] secrets are kept in " + fileDirectory_
                            : "[SecretStore] secrets are kept in the keyring of " + place.provider);
  announcer()(SecretEvent::placeChanged);
}

SecretStore::Result<std::optional<std::string>> SecretStoreChoice::read(SecretAccount account) {
  if (isIn(Kind::files)) return files_.read(account);
  if (!isIn(Kind::secretService)) {
    // Nothing was stored yet, or the settings have been lost.
    auto inFiles = files_.read(account);
    if (inFiles && *inFiles) {
      decide({.kind = Kind::files, .provider = ""});
      return inFiles;
    }
    switch (keyring_.presence()) {
      case Presence::none:
      case Presence::noCollection:
        return inFiles;
      case Presence::unknown:
        return tl::make_unexpected(secretTimeoutError());
      case Presence::usable:
        break;
    }
  }
  auto secret = keyring_.read(account);
  if (secret && *secret) decide(*keyring_.place());
  return secret;
}

/// True when a new secret has to go to files, since no keyring can take it.
bool SecretStoreChoice::giveWayToFiles() {
  switch (keyring_.presence()) {
    case Presence::none:
      return true;
    case Presence::noCollection:
      return !isIn(Kind::secretService);
    case Presence::usable:
    case Presence::unknown:
      break;
  }
  return false;
}

SecretStore::Result<void> SecretStoreChoice::write(const std::string& value,
                                                   SecretAccount account) {
  if (isIn(Kind::files) || giveWayToFiles()) {
    auto written = files_.write(value, account);
    if (written) decide({.kind = Kind::files, .provider = ""});
    return written;
  }
  auto written = keyring_.write(value, account);
  if (written) decide(*keyring_.place());
  return written;
}

SecretStore::Result<void> SecretStoreChoice::remove(SecretAccount account) {
  auto removed = files_.remove(account);
  if (isIn(Kind::files)) return removed;
  if (!isIn(Kind::secretService)) {
    const auto presence = keyring_.presence();
    if (presence == Presence::none || presence == Presence::noCollection) return removed;
  }
  if (auto inKeyring = keyring_.remove(account); !inKeyring) return inKeyring;
  return removed;
}

SecretStore::Result<void> SecretStoreChoice::unlock() {
  if (isIn(Kind::files)) return {};
  if (!isIn(Kind::secretService)) {
    const auto presence = keyring_.presence();
    if (presence == Presence::none || presence == Presence::noCollection) return {};
  }
  return keyring_.unlock();
}

}  // namespace verdo
