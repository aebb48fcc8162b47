#include "VerdoDriver/Model/AppModel.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriver/Model/SecretTask.h"
#include "VerdoDriverCore/Values/Url.h"

#include <QPointer>
#include <QUrl>
#include <utility>

#include <fmt/format.h>

namespace verdo {

AppModel::AppModel(Parts parts)
    : clock_(parts.system.clock),
      log_(parts.log),
      settings_(std::move(parts.settings)),
      secrets_(parts.system.secrets),
      loginItems_(std::move(parts.system.loginItems)),
      wakeMonitor_(std::move(parts.system.wakeMonitor)),
      pathMonitor_(std::move(parts.system.pathMonitor)),
      findEgo_(parts.egoPath),
      openURL_(parts.openURL),
      logPath_(std::move(parts.logPath)),
      browserPackage_(std::move(parts.system.browserPackage)),
      storedSecrets_(parts.system.secrets, *settings_),
      configSource_(*settings_, secrets_, parts.llmBase, std::move(parts.clientHeader)),
      supervisor_(parts.factory, log_, clock_),
      keepAwake_(std::move(parts.system.powerAssertion), clock_, settings_->keepAwakeMode()),
      connectFlow_(parts.factory, secrets_, *settings_, log_, parts.egoPath, parts.llmBase),
      pairFlow_(std::move(parts.pairingService), parts.openURL, std::move(parts.hostName), log_,
                clock_),
      onboarding_(pairFlow_, connectFlow_),
      legacyImport_(
          {.migration = std::move(parts.migration),
           .secrets = secrets_,
           .settings = settings_.get(),
           .log = log_,
           .connect =
               [this](const ConnectDraft& draft, auto done) {
                 forgetFailures();
                 connectFlow_.connect(draft, std::move(done));
               },
           .refreshManifest = [this] { releases_.refresh(); },
           .restartDriver = [this] { storedSecrets_.refresh([this] { restartDriver(); }); }}),
      removal_({.supervisor = &supervisor_,
                .settings = settings_.get(),
                .secrets = secrets_,
                .loginItems = loginItems_,
                .log = log_,
                .removeTraces = std::move(parts.removeTraces)}),
      releases_({.checker = std::move(parts.updateChecker),
                 .settings = settings_.get(),
                 .clock = clock_,
                 .openURL = openURL_,
                 .isProgramReplaced = std::move(parts.system.isProgramReplaced),
                 .manifestInterval = parts.manifestInterval}),
      checkup_({.source = &configSource_,
                .settings = settings_.get(),
                .factory = std::move(parts.factory)}),
      egoPath_(findEgo_()) {
  wire();
}

AppModel::~AppModel() { secrets_->listen({}); }

void AppModel::wire() {
  const auto supervised = [this] {
    evaluateKeepAwake();
    touch();
  };
  QObject::connect(&supervisor_, &DriverSupervisor::stateChanged, this, supervised);
  QObject::connect(&supervisor_, &DriverSupervisor::busyLanesChanged, this, supervised);
  using Changed = void (DriverSupervisor::*)();
  for (const Changed signal :
       {&DriverSupervisor::usernameChanged, &DriverSupervisor::servedCountChanged,
        &DriverSupervisor::lastJobChanged, &DriverSupervisor::lastErrorChanged,
        &DriverSupervisor::retryMessageChanged, &DriverSupervisor::spacesHolderChanged,
        &DriverSupervisor::stopBegan}) {
    QObject::connect(&supervisor_, signal, this, &AppModel::touch);
  }
  QObject::connect(&supervisor_, &DriverSupervisor::updateAvailableChanged, this, [this] {
    if (supervisor_.updateAvailable()) releases_.updateWasNamed();
  });
  QObject::connect(&supervisor_, &DriverSupervisor::exited, this, [this](const ExitReason& reason) {
    if (reason.kind() == ExitReason::Kind::outOfDate) releases_.refresh();
  });
  QObject::connect(settings_.get(), &SettingsStore::keepAwakeModeChanged, this,
                   [this](KeepAwakeMode mode) {
                     keepAwake_.setMode(mode);
                     touch();
                   });
  QObject::connect(settings_.get(), &SettingsStore::launchAtLoginChanged, this,
                   [this](bool launch) {
                     loginItems_->setEnabled(launch);
                     touch();
                   });
  QObject::connect(settings_.get(), &SettingsStore::serverURLChanged, this, &AppModel::touch);
  QObject::connect(settings_.get(), &SettingsStore::autoStartChanged, this, &AppModel::touch);
  QObject::connect(settings_.get(), &SettingsStore::allowInsecureChanged, this, &AppModel::touch);
  QObject::connect(settings_.get(), &SettingsStore::isWritableChanged, this, &AppModel::touch);
  QObject::connect(&storedSecrets_, &StoredSecrets::changed, this, [this] {
    if (secretFailure_ && isSecretFailureOver_()) secretFailure_.reset();
    touch();
  });
  QObject::connect(&pairFlow_, &PairFlow::stateChanged, this, [this] {
    isAskingForCode_ = false;
    touch();
  });
  QObject::connect(&legacyImport_, &LegacyImport::changed, this, &AppModel::touch);
  QObject::connect(&releases_, &Releases::changed, this, &AppModel::touch);
  QObject::connect(&checkup_, &Checkup::changed, this, &AppModel::touch);
  secrets_->listen([this](SecretEvent event) { heard(event); });
}

/// Tells of a change once the event that made it is over, so that changes which come together show
/// as one.
void AppModel::touch() {
  if (std::exchange(isTouched_, true)) return;
  MainThread::post([self = QPointer(this)] {
    if (!self) return;
    self->isTouched_ = false;
    Q_EMIT self->changed();
  });
}

void AppModel::heard(SecretEvent event) {
  switch (event) {
    case SecretEvent::changed:
      return storedSecrets_.refresh([this] {
        if (launchDone_) launched();
        supervisor_.secretsChanged();
      });
    case SecretEvent::placeChanged:
      if (const auto place = secrets_->place()) settings_->setSecretPlace(*place);
      break;
    case SecretEvent::promptOpened:
    case SecretEvent::promptClosed:
      isPromptOpen_ = event == SecretEvent::promptOpened;
      break;
  }
  touch();
}

void AppModel::evaluateKeepAwake() {
  const DriverState& state = supervisor_.state();
  keepAwake_.setDriverRunning(std::holds_alternative<DriverStarting>(state) ||
                              std::holds_alternative<DriverRunning>(state));
  keepAwake_.setBusy(!supervisor_.busyLanes().empty());
  keepAwake_.evaluate();
}

void AppModel::didLaunch(std::function<void(bool)> done) {
  MainThread::require("AppModel::didLaunch");
  launchDone_ = std::move(done);
  startMonitors();
  loginItems_->refresh();
  legacyImport_.detect();
  storedSecrets_.refresh([this] { launched(); });
}

/// The store has told what it can. What it cannot tell yet is no reason to ask the user to pair.
void AppModel::launched() {
  const bool isWaiting = !storedSecrets_.isKnown() && !settings_->serverURL().empty();
  if (!isConfigured()) {
    if (isWaiting) return;
    if (const auto done = std::exchange(launchDone_, nullptr)) done(true);
    return;
  }
  const auto done = std::exchange(launchDone_, nullptr);
  releases_.refresh();
  if (settings_->autoStart()) {
    AppLog::lifecycle.info("[AppModel] configured + autoStart — starting the driver");
    supervisor_.start(configSource_.provider());
  }
  if (done) done(false);
}

void AppModel::startMonitors() {
  if (wakeMonitor_) {
    QObject::connect(wakeMonitor_.get(), &WakeMonitor::woke, this, [this] {
      AppLog::lifecycle.info("[AppModel] system woke — kick");
      supervisor_.kick();
    });
  }
  if (!pathMonitor_) return;
  QObject::connect(pathMonitor_.get(), &PathMonitor::reported, this, &AppModel::pathReported);
  pathMonitor_->start();
}

void AppModel::pathReported(bool satisfied) {
  const auto before = std::exchange(lastPathSatisfied_, satisfied);
  if (!satisfied || !before) return;
  if (*before) return supervisor_.networkChanged();  // another path: the old connections are dead
  AppLog::lifecycle.info("[AppModel] network back — kick");
  supervisor_.kick();
}

void AppModel::popoverOpened() {
  settings_->writeAgain();
  storedSecrets_.refresh();
  egoPath_ = findEgo_();
  legacyImport_.detect();
  releases_.refreshIfOld();
  touch();
}

Connection AppModel::connection() const {
  return connectionOf(isConfigured(), supervisor_.state(), !supervisor_.busyLanes().empty());
}

void AppModel::restartDriver() {
  if (supervisor_.hasCurrentRun() || std::holds_alternative<DriverBackoff>(supervisor_.state())) {
    return supervisor_.restart();
  }
  supervisor_.start(configSource_.provider());
}

void AppModel::stopDriver() { supervisor_.stop(DriverSupervisor::kStopTimeout); }

void AppModel::forgetToken() {
  supervisor_.stop(DriverSupervisor::kStopTimeout);
  forgetFailures();
  storedSecrets_.remove(SecretAccount::driverToken, [this](const auto& removed) {
    if (removed) return log_->write("» token forgotten");
    secretFailed("The token could not be forgotten", removed.error(),
                 [this] { return !hasToken(); });
  });
}

void AppModel::removeKey() {
  forgetFailures();
  storedSecrets_.remove(SecretAccount::llmKey, [this](const auto& removed) {
    if (!removed) {
      return secretFailed("The key could not be removed", removed.error(),
                          [this] { return !hasKey(); });
    }
    log_->write("» DeepSeek key removed");
    if (supervisor_.hasCurrentRun()) supervisor_.restart();
  });
}

void AppModel::removeEverything() {
  if (isRemoving()) return;
  forgetFailures();
  cancelAttempts();
  removal_.begin([this](const Removal::Left& left) { removed(left); });
}

void AppModel::removed(const Removal::Left& left) {
  supervisor_.forgetHistory();
  releases_.forget();
  removalReport_ =
      left.empty() ? "Everything was removed."
                   : fmt::format("Not removed: {}. Everything else was.", fmt::join(left, "; "));
  *removalReport_ += " The log is still there: " + logPath_;
  storedSecrets_.refresh();
  touch();
}

void AppModel::unlockSecrets() {
  secretFailure_.reset();
  storedSecrets_.unlock([this](const auto& unlocked) {
    if (!unlocked) {
      return secretFailed("Could not unlock the keyring", unlocked.error(),
                          [this] { return storedSecrets_.isKnown(); });
    }
    if (launchDone_) launched();
    supervisor_.secretsChanged();
  });
}

void AppModel::secretFailed(const char* what, const SecretError& error, IsOver isOver) {
  isSecretFailureOver_ = std::move(isOver);
  secretFailure_ = fmt::format("{}: {}", what, error.description);
  log_->write("✗ " + *secretFailure_);
  touch();
}

void AppModel::connect(const ConnectDraft& draft, ConnectFlow::Completion completion) {
  forgetFailures();
  connectFlow_.connect(draft, [self = QPointer(this),
                               completion = std::move(completion)](const ConnectResult& result) {
    if (self) self->connected(result);
    if (completion) completion(result);
  });
}

void AppModel::startPairing(const std::string& serverURL, bool allowInsecure,
                            const std::string& llmKey) {
  forgetFailures();
  const auto done = [self = QPointer(this)](const ConnectResult& result) {
    if (self) self->connected(result);
  };
  if (onboarding_.hasApproval()) return onboarding_.retry(llmKey, done);
  cancelPairing();
  isAskingForCode_ = true;
  onboarding_.start(lowerScheme(serverURL), allowInsecure, llmKey, done);
}

void AppModel::cancelPairing() {
  onboarding_.cancel();
  isAskingForCode_ = false;
  touch();
}

void AppModel::saveKey(const std::string& llmKey) {
  forgetFailures();
  isCheckingKey_ = true;
  const auto check = ++keyChecks_;
  const auto read = [secrets = secrets_]() -> SecretStore::Result<std::optional<std::string>> {
    const auto unlocked = secrets->unlock();
    if (!unlocked) return tl::make_unexpected(unlocked.error());
    return secrets->read(SecretAccount::driverToken);
  };
  askSecretStore(read, [self = QPointer(this), llmKey, check](const auto& token) {
    if (!self) return;
    if (!token) {
      self->endKeyCheck(check);
      return self->secretFailed("Could not read the keyring", token.error(),
                                [self] { return self->storedSecrets_.isKnown(); });
    }
    self->connect({.serverURL = self->settings_->serverURL(),
                   .token = token->value_or(""),
                   .llmKey = llmKey,
                   .allowInsecure = self->settings_->allowInsecure()},
                  [self, check](const ConnectResult&) {
                    if (self) self->endKeyCheck(check);
                  });
  });
}

void AppModel::endKeyCheck(std::uint64_t check) {
  if (check != keyChecks_) return;
  isCheckingKey_ = false;
  touch();
}

/// What was said of the last try ends with the next one.
void AppModel::forgetFailures() {
  connectFailure_.reset();
  secretFailure_.reset();
  removalReport_.reset();
  pairFlow_.dismissFailure();
  touch();
}

void AppModel::connected(const ConnectResult& result) {
  if (result.reason.kind() != ExitReason::Kind::stopped && !result.saved) {
    connectFailure_ = result.text;
  }
  touch();
  if (!result.saved) return;
  storedSecrets_.refresh([this] {
    restartDriver();
    releases_.refresh();
  });
}

void AppModel::setLaunchAtLogin(bool launch) { settings_->setLaunchAtLogin(launch); }

void AppModel::openLog() {
  log_->write("» log opened from the popover");
  // A path may hold what begins another part of a URL.
  openURL_(QUrl::fromLocalFile(QString::fromStdString(logPath_)).toEncoded().toStdString());
}

void AppModel::openVerifyURL() {
  const auto* waiting = std::get_if<PairingWaiting>(&pairing());
  if (waiting) openURL_(waiting->verifyURL);
}

void AppModel::cancelAttempts() {
  onboarding_.cancel();
  connectFlow_.cancel();
  secrets_->cancelPrompt();
  checkup_.close();
}

}  // namespace verdo
