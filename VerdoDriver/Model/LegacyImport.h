#pragma once

#include "VerdoDriver/Model/ConnectFlow.h"
#include "VerdoDriver/Model/LegacyDriverMigration.h"

#include <QObject>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// Takes over the setup of a terminal driver on the user's demand, and removes that driver: what
/// the migration banner shows and does. Main thread only.
///
/// Nothing is imported unless the service has accepted the old token in a dry run; the env file
/// stays until the user has it deleted. While an operation runs, others are ignored.
class LegacyImport : public QObject {
  Q_OBJECT
  Q_PROPERTY(std::optional<verdo::LegacyInstall> legacy READ legacy NOTIFY changed)
  Q_PROPERTY(std::optional<std::string> migrationMessage READ migrationMessage NOTIFY changed)
  Q_PROPERTY(bool legacyReplaceArmed READ legacyReplaceArmed NOTIFY changed)
  Q_PROPERTY(bool legacyBusy READ legacyBusy NOTIFY changed)
 public:
  /// Called exactly once, on the main thread and never inside the call, unless the import is gone
  /// by then. The result is absent when it never came to a check.
  using Completion = std::function<void(const std::optional<ConnectResult>&)>;
  /// ConnectFlow::connect, or its like.
  using Connect = std::function<void(const ConnectDraft&, ConnectFlow::Completion)>;

  struct Parts {
    LegacyDriverMigration migration;
    std::shared_ptr<SecretStore> secrets;
    SettingsStore* settings = nullptr;  ///< outlives the import
    std::shared_ptr<DriverLog> log;
    Connect connect;
    std::function<void()> refreshManifest;  ///< after an import
    std::function<void()> restartDriver;    ///< after an import
  };
  explicit LegacyImport(Parts parts);

  /// As last detected; absent before the first time.
  const std::optional<LegacyInstall>& legacy() const { return legacy_; }
  /// What the banner says of the last operation.
  const std::optional<std::string>& migrationMessage() const { return migrationMessage_; }
  /// The next import replaces the token that is stored; the message has said so.
  bool legacyReplaceArmed() const { return legacyReplaceArmed_; }
  bool legacyBusy() const { return legacyBusy_; }

  /// Looks whether there is a terminal driver. Blocks while launchctl runs.
  void detect();
  /// Imports server, token, LLM key and keep-awake mode, and then removes the agent if `remove` is
  /// set. While a token is stored that the import would replace, the first call only arms it.
  void importLegacy(bool remove, const Completion& completion);
  /// Removes the agent and imports nothing.
  void removeLegacyOnly();
  void deleteLegacyEnvFile();
  /// Detects and imports without a user, and removes the agent. Never replaces a stored token.
  void importLegacyHeadless();

 Q_SIGNALS:
  /// Something of the state above may have changed.
  void changed();

 private:
  using StoredToken = SecretStore::Result<std::optional<std::string>>;

  void endLater(const Completion& completion);
  void readStoredToken(bool isUsersWish, const std::function<void(const StoredToken&)>& done);
  void check(const LegacySecrets& secrets, bool remove, const Completion& completion);
  void finish(const LegacySecrets& secrets, bool remove, const ConnectResult& result);
  void stopAtStore(const SecretError& error);
  void finishHeadless();
  void setMessage(std::string message);
  void setBusy(bool busy);
  void setArmed(bool armed);

  const Parts parts_;
  std::optional<LegacyInstall> legacy_;
  std::optional<std::string> migrationMessage_;
  bool legacyReplaceArmed_ = false;
  bool legacyBusy_ = false;
};

}  // namespace verdo
