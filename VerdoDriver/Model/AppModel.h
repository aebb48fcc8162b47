#pragma once

#include "VerdoDriver/Model/Checkup.h"
#include "VerdoDriver/Model/ConfigSource.h"
#include "VerdoDriver/Model/Connection.h"
#include "VerdoDriver/Model/DriverSupervisor.h"
#include "VerdoDriver/Model/KeepAwakeController.h"
#include "VerdoDriver/Model/LegacyImport.h"
#include "VerdoDriver/Model/Onboarding.h"
#include "VerdoDriver/Model/Releases.h"
#include "VerdoDriver/Model/Removal.h"
#include "VerdoDriver/Model/StoredSecrets.h"
#include "VerdoDriver/Model/SystemParts.h"

#include <QObject>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// The one object behind the user interface: owns the app's services, wires them to each other,
/// derives what the interface shows, and does what the user asks for. Main thread only; made once,
/// and there until the process ends.
class AppModel : public QObject {
  Q_OBJECT
 public:
  /// What the model is made of; all of it is there.
  struct Parts {
    SystemParts system;
    std::unique_ptr<SettingsStore> settings;
    std::shared_ptr<DriverFactory> factory;
    std::shared_ptr<DriverLog> log;
    LegacyDriverMigration migration;
    std::unique_ptr<UpdateChecker> updateChecker;
    std::shared_ptr<PairingService> pairingService;
    ConnectFlow::EgoPath egoPath;
    PairFlow::HostName hostName;
    PairFlow::OpenURL openURL;                    ///< also of a file
    std::function<Removal::Left()> removeTraces;  ///< of jobs; blocks
    std::string logPath;                          ///< of what openLog() opens
    std::string llmBase;                          ///< of the provider; empty: the default one
    std::string clientHeader;                     ///< how the app presents itself to the service
    Clock::Duration manifestInterval = Releases::kManifestInterval;
  };
  explicit AppModel(Parts parts);
  ~AppModel() override;

  /// Starts what is to run from the launch on: the monitors and, once the secret store has told
  /// that a token is stored, the driver if the user wants it started. `done` comes later, once,
  /// with whether the app is not set up; while the store cannot tell, it is not called.
  void didLaunch(std::function<void(bool isNotSetUp)> done);
  /// The popover is about to be shown: what may have changed behind the app's back is read anew.
  void popoverOpened();

  // What the interface shows. changed() tells of all of it.
  Connection connection() const;
  bool isConfigured() const { return hasToken() && !settings().serverURL().empty(); }
  bool hasToken() const { return storedSecrets_.hasToken(); }
  bool hasKey() const { return storedSecrets_.hasKey(); }
  const StoredSecrets& storedSecrets() const { return storedSecrets_; }
  /// The path of the browser tool, as last looked for; absent when there is none.
  const std::optional<std::string>& egoPath() const { return egoPath_; }
  const PairingState& pairing() const { return pairFlow_.state(); }
  /// A pairing was begun, and the server has not answered yet.
  bool isAskingForCode() const { return isAskingForCode_; }
  /// saveKey() is at work.
  bool isCheckingKey() const { return isCheckingKey_; }
  /// A token was approved, and waits for a key with which it can be saved.
  bool hasApproval() const { return onboarding_.hasApproval(); }
  /// What came of the last connect that failed, until the next one, or until what it was about is
  /// taken away.
  const std::optional<StatusText>& connectFailure() const { return connectFailure_; }
  /// What the store said when a secret could not be forgotten or unlocked, until the next try, or
  /// until it is so.
  const std::optional<std::string>& secretFailure() const { return secretFailure_; }
  /// A window of the system's waits for the user.
  bool isPromptOpen() const { return isPromptOpen_; }
  bool isRemoving() const { return removal_.isUnderWay(); }
  /// What came of removeEverything(), until the next try to connect.
  const std::optional<std::string>& removalReport() const { return removalReport_; }
  std::optional<SecretPlace> secretPlace() const { return settings().secretPlace(); }
  bool launchesAtLogin() const { return loginItems_->isEnabled(); }
  const std::string& browserPackage() const { return browserPackage_; }

  const SettingsStore& settings() const { return *settings_; }
  SettingsStore& settings() { return *settings_; }
  const DriverSupervisor& supervisor() const { return supervisor_; }
  DriverSupervisor& supervisor() { return supervisor_; }
  LegacyImport& legacyImport() { return legacyImport_; }
  const Releases& releases() const { return releases_; }
  Releases& releases() { return releases_; }
  const Checkup& checkup() const { return checkup_; }
  Checkup& checkup() { return checkup_; }
  Clock& clock() const { return *clock_; }

  // What the user can do.
  void restartDriver();
  void stopDriver();
  void forgetToken();
  void removeKey();
  /// Takes away all that the app keeps on this computer but for the log; afterwards it is as at its
  /// first start.
  void removeEverything();
  void unlockSecrets();
  void connect(const ConnectDraft& draft, ConnectFlow::Completion completion);
  /// Connects to the website: pairs, or goes on with the token that was approved.
  void startPairing(const std::string& serverURL, bool allowInsecure, const std::string& llmKey);
  void cancelPairing();
  /// Saves another key beside the stored token.
  void saveKey(const std::string& llmKey);
  void setLaunchAtLogin(bool launch);
  void openLog();
  /// Opens the approve page of the pairing that waits; does nothing while there is none.
  void openVerifyURL();
  /// Calls off whatever waits for the user, or works for nobody else: a pairing, a connect, a
  /// window of the keyring, a check.
  void cancelAttempts();

 Q_SIGNALS:
  /// Something of the above has changed; emitted once for changes that come together, after them.
  void changed();

 private:
  void wire();
  void touch();
  void startMonitors();
  void pathReported(bool satisfied);
  void launched();
  void heard(SecretEvent event);
  void evaluateKeepAwake();
  using IsOver = std::function<bool()>;
  void secretFailed(const char* what, const SecretError& error, IsOver isOver);
  void forgetFailures();
  void removed(const Removal::Left& left);
  void endKeyCheck(std::uint64_t check);
  void connected(const ConnectResult& result);

  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<DriverLog> log_;
  const std::unique_ptr<SettingsStore> settings_;
  const std::shared_ptr<SecretStore> secrets_;
  const std::shared_ptr<LoginItemManaging> loginItems_;
  const std::unique_ptr<WakeMonitor> wakeMonitor_;
  const std::unique_ptr<PathMonitor> pathMonitor_;
  const ConnectFlow::EgoPath findEgo_;
  const PairFlow::OpenURL openURL_;
  const std::string logPath_;
  const std::string browserPackage_;

  StoredSecrets storedSecrets_;
  ConfigSource configSource_;
  DriverSupervisor supervisor_;
  KeepAwakeController keepAwake_;
  ConnectFlow connectFlow_;
  PairFlow pairFlow_;
  Onboarding onboarding_;
  LegacyImport legacyImport_;
  Removal removal_;
  Releases releases_;
  Checkup checkup_;

  std::function<void(bool)> launchDone_;  ///< until it was called
  std::optional<bool> lastPathSatisfied_;
  std::optional<std::string> egoPath_;
  std::optional<StatusText> connectFailure_;
  std::optional<std::string> secretFailure_;
  IsOver isSecretFailureOver_;
  std::optional<std::string> removalReport_;
  bool isPromptOpen_ = false;
  bool isAskingForCode_ = false;
  bool isCheckingKey_ = false;
  std::uint64_t keyChecks_ = 0;  ///< ever; only the last one says when none is at work
  bool isTouched_ = false;
};

}  // namespace verdo
