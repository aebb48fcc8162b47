#include "VerdoDriver/Model/LegacyImport.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriver/Model/SecretTask.h"
#include "VerdoDriverCore/Values/Url.h"

#include <QPointer>
#include <vector>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr const char* kNoneForHeadless = "[AppModel] -VERDOImportLegacy: no Terminal driver found";

}  // namespace

LegacyImport::LegacyImport(Parts parts) : parts_(std::move(parts)) {}

void LegacyImport::detect() {
  legacy_ = parts_.migration.detect();
  Q_EMIT changed();
}

void LegacyImport::importLegacy(bool remove, const Completion& completion) {
  if (!legacy_ || legacyBusy_) return endLater(completion);
  const LegacySecrets secrets = parts_.migration.readSecrets();
  if (!secrets.token || legacyReplaceArmed_) return check(secrets, remove, completion);
  readStoredToken(true, [this, secrets, remove, completion](const StoredToken& stored) {
    if (!stored) {
      stopAtStore(stored.error());
      return completion(std::nullopt);
    }
    if (stored->value_or("").empty()) return check(secrets, remove, completion);
    setArmed(true);
    setMessage(
        fmt::format("A token {} is already stored — press Import again to replace it with the env "
                    "file's {}.",
                    masked(**stored), masked(*secrets.token)));
    AppLog::migration.info("[AppModel] import needs confirmation — a token is already stored");
    completion(std::nullopt);
  });
}

/// Ends an import that never came to a check.
void LegacyImport::endLater(const Completion& completion) {
  MainThread::post([self = QPointer(this), completion] {
    if (self) completion(std::nullopt);
  });
}

/// `isUsersWish`: the system may ask the user to unlock the store.
void LegacyImport::readStoredToken(bool isUsersWish,
                                   const std::function<void(const StoredToken&)>& done) {
  setBusy(true);
  const auto read = [secrets = parts_.secrets, isUsersWish]() -> StoredToken {
    const auto unlocked = isUsersWish ? secrets->unlock() : SecretStore::Result<void>();
    if (!unlocked) return tl::make_unexpected(unlocked.error());
    return secrets->read(SecretAccount::driverToken);
  };
  const auto answered = [self = QPointer(this), done](const StoredToken& stored) {
    if (!self) return;
    self->setBusy(false);
    done(stored);
  };
  askSecretStore(read, answered);
}

void LegacyImport::stopAtStore(const SecretError& error) {
  AppLog::migration.error("[AppModel] import stopped — the stored token cannot be read: " +
                          error.description);
  setMessage("Import stopped — the stored token cannot be read: " + error.description);
}

void LegacyImport::check(const LegacySecrets& secrets, bool remove, const Completion& completion) {
  setArmed(false);
  const bool allowInsecure = parts_.settings->allowInsecure();
  const auto server = validateServerURL(lowerScheme(secrets.server.value_or("")), allowInsecure);
  if (!server) {
    const std::string& reason = server.error().message;
    setMessage("Import refused: " + reason);
    AppLog::migration.error("[AppModel] import refused: " + reason);
    return endLater(completion);
  }
  setBusy(true);
  setMessage(fmt::format("Checking the env file's token against {}…", *server));
  parts_.connect({.serverURL = *server,
                  .token = secrets.token.value_or(""),
                  .llmKey = secrets.llmKey.value_or(""),
                  .allowInsecure = allowInsecure},
                 [self = QPointer(this), secrets, remove, completion](const ConnectResult& result) {
                   if (!self) return;
                   self->finish(secrets, remove, result);
                   completion(result);
                 });
}

void LegacyImport::finish(const LegacySecrets& secrets, bool remove, const ConnectResult& result) {
  setBusy(false);
  if (!result.saved) {
    setMessage(fmt::format("Import failed — nothing written: {}. {}", result.text.title,
                           result.text.detail));
    AppLog::migration.error(
        fmt::format("[AppModel] import dry run failed: exit {}", result.reason.code()));
    return;
  }
  std::vector<std::string> items = {"server"};
  if (secrets.token) items.emplace_back("token");
  if (secrets.llmKey) items.emplace_back("key");
  if (secrets.keepAwakeMode) parts_.settings->setKeepAwakeMode(*secrets.keepAwakeMode);
  if (remove) {
    const auto removal = parts_.migration.removeAgent();
    items.push_back(removal ? "agent removed" : "agent NOT removed: " + removal.error());
  }
  const std::string list = fmt::format("{}", fmt::join(items, ", "));
  setMessage(fmt::format("Imported: {}.", list));
  parts_.log->write(fmt::format("» legacy driver imported ({})", list));
  detect();
  parts_.refreshManifest();
  parts_.restartDriver();
}

void LegacyImport::removeLegacyOnly() {
  if (legacyBusy_) return;
  setArmed(false);
  const auto removal = parts_.migration.removeAgent();
  setMessage(removal
                 ? fmt::format("Terminal driver removed; {} kept.", parts_.migration.envFilePath())
                 : removal.error());
  detect();
}

void LegacyImport::deleteLegacyEnvFile() {
  if (legacyBusy_) return;
  setArmed(false);
  const auto removal = parts_.migration.deleteEnvFile();
  setMessage(removal ? "Env file deleted." : removal.error());
  detect();
}

void LegacyImport::importLegacyHeadless() {
  if (legacyBusy_) return;
  parts_.log->write("» headless import of the Terminal driver requested (-VERDOImportLegacy)");
  setArmed(false);  // only a user confirms
  detect();
  if (!legacy_) return AppLog::migration.info(kNoneForHeadless);
  readStoredToken(false, [this](const StoredToken& stored) {
    // The store took its time, in which it may have been looked for anew.
    if (!legacy_) return AppLog::migration.info(kNoneForHeadless);
    if (!stored) {
      stopAtStore(stored.error());
      return finishHeadless();
    }
    if (!stored->value_or("").empty()) {
      AppLog::migration.info(
          "[AppModel] -VERDOImportLegacy: a token is already stored — use the banner");
      return;
    }
    AppLog::migration.info(
        fmt::format("[AppModel] -VERDOImportLegacy: importing (token {}, key {})",
                    legacy_->tokenLast4.has_value(), legacy_->keyLast4.has_value()));
    importLegacy(true, [this](const std::optional<ConnectResult>&) { finishHeadless(); });
  });
}

void LegacyImport::finishHeadless() {
  const std::string message = migrationMessage_.value_or("");
  AppLog::migration.info("[AppModel] -VERDOImportLegacy: " + message);
  parts_.log->write("headless import: " + message);
}

void LegacyImport::setMessage(std::string message) {
  migrationMessage_ = std::move(message);
  Q_EMIT changed();
}

void LegacyImport::setBusy(bool busy) {
  legacyBusy_ = busy;
  Q_EMIT changed();
}

void LegacyImport::setArmed(bool armed) {
  legacyReplaceArmed_ = armed;
  Q_EMIT changed();
}

}  // namespace verdo
