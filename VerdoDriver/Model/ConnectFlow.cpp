#include "VerdoDriver/Model/ConnectFlow.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/ConnectCommit.h"
#include "VerdoDriver/Model/EgoLocator.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriver/Model/SecretTask.h"
#include "VerdoDriverCore/System/Sync.h"

#include <QPointer>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

/// Remembers whom the service took the driver for.
class ConnectCapture : public DriverObserver {
 public:
  void driverConnected(const std::string& username, std::int64_t, const std::string&) override {
    MutexLock lock(lock_);
    username_ = username;
  }
  void driverBusyLanesChanged(const std::vector<std::string>&) override {}
  void driverJobStarted(std::int64_t, const std::string&, const std::string&) override {}
  void driverJobFinished(std::int64_t, const std::string&, std::int32_t,
                         const std::optional<std::string>&) override {}
  void driverRetrying(const std::string&, double) override {}

  std::optional<std::string> username() {
    MutexLock lock(lock_);
    return username_;
  }

 private:
  Mutex lock_;
  std::optional<std::string> username_ GUARDED_BY(lock_);
};

ConnectResult resultOf(ExitReason reason, StatusText text,
                       std::optional<std::string> username = std::nullopt) {
  return {std::move(reason), std::move(username), std::move(text)};
}

/// The same button for every fault of what was typed, a missing key included.
ConnectResult checkTheSetup(const std::string& message) {
  const auto reason = ExitReason::badConfig(message);
  return resultOf(reason, StatusText::describe(reason));
}

using Stage = ConnectCommit::Stage;

/// Puts a secret in the place of an earlier one, which it can bring back.
class Replacement {
 public:
  Replacement(SecretStore& secrets, SecretAccount account, const ConnectCommit& commit)
      : secrets_(secrets), account_(account), commit_(commit) {}

  /// An empty value changes nothing, nor does any once all is called off: the write could still ask
  /// the user.
  SecretStore::Result<void> write(const std::string& value) {
    if (value.empty()) return {};
    auto before = secrets_.read(account_);
    if (!before && before.error().kind == SecretError::Kind::locked && !commit_.isCalledOff()) {
      // The user wants it stored, so the system may ask for the password.
      if (const auto unlocked = secrets_.unlock(); !unlocked) {
        return tl::make_unexpected(unlocked.error());
      }
      before = secrets_.read(account_);
    }
    // Of a store that is out of reach the user may mean to make another one: that is for the
    // write to tell.
    if (!before && before.error().kind != SecretError::Kind::unavailable) {
      return tl::make_unexpected(before.error());
    }
    if (commit_.isCalledOff()) return {};
    auto written = secrets_.write(value, account_);
    if (written) before_ = before.value_or(std::nullopt);
    return written;
  }
  /// A store that has just failed may fail again; nothing more can be done then.
  void takeBack() {
    if (!before_) return;
    static_cast<void>(*before_ ? secrets_.write(**before_, account_) : secrets_.remove(account_));
  }

 private:
  SecretStore& secrets_;
  const SecretAccount account_;
  const ConnectCommit& commit_;
  /// Once it was replaced; an empty one, too, in the place of one that was out of reach.
  std::optional<std::optional<std::string>> before_;
};

/// Stores what the draft has of secrets, all of it or nothing; nothing when it is called off.
SecretStore::Result<void> writeSecrets(SecretStore& secrets, const ConnectDraft& draft,
                                       ConnectCommit& commit) {
  if (!commit.advance(Stage::open, Stage::atStore)) return {};
  Replacement token(secrets, SecretAccount::driverToken, commit);
  Replacement key(secrets, SecretAccount::llmKey, commit);
  auto written = token.write(draft.token);
  if (written) written = key.write(draft.llmKey);
  if (!written || !commit.advance(Stage::atStore, Stage::stored)) {
    key.takeBack();
    token.takeBack();
  }
  return written;
}

/// The stored key, for whose sake the user may have to unlock the store.
SecretStore::Result<std::optional<std::string>> readKey(SecretStore& secrets,
                                                        ConnectCommit& commit) {
  if (!commit.advance(Stage::open, Stage::atStore)) return std::nullopt;
  const auto unlocked = secrets.unlock();
  auto key = unlocked ? secrets.read(SecretAccount::llmKey) : tl::make_unexpected(unlocked.error());
  commit.advance(Stage::atStore, Stage::open);
  return key;
}

}  // namespace

struct ConnectFlow::Attempt {
  ConnectDraft draft;
  bool isToBeSaved = false;
  Completion completion;                 ///< until it was called
  std::shared_ptr<DriverHandle> handle;  ///< of the dry run
  const std::shared_ptr<ConnectCommit> commit = std::make_shared<ConnectCommit>();
};

ConnectFlow::ConnectFlow(std::shared_ptr<DriverFactory> factory,
                         std::shared_ptr<SecretStore> secrets, SettingsStore& settings,
                         std::shared_ptr<DriverLog> log, EgoPath egoPath, std::string llmBase)
    : factory_(std::move(factory)),
      secrets_(std::move(secrets)),
      settings_(settings),
      log_(std::move(log)),
      egoPath_(std::move(egoPath)),
      llmBase_(std::move(llmBase)) {}

ConnectFlow::~ConnectFlow() { cancel(); }

tl::expected<DriverConfig, Refusal> ConnectFlow::buildConfig(const ConnectDraft& draft, bool dryRun,
                                                             bool checkLLM) const {
  const auto server = validateServerURL(draft.serverURL, draft.allowInsecure);
  if (!server) return tl::make_unexpected(server.error());
  if (draft.token.empty()) {
    return tl::make_unexpected(Refusal{"Not connected yet — press Connect to website."});
  }
  DriverConfig config(*server, draft.token);
  config.execCommand = EgoLocator::command();
  config.extraPathDirs = EgoLocator::extraPathDirs();
  config.llmKey = draft.llmKey;
  if (!llmBase_.empty()) config.llmBase = llmBase_;
  config.insecure = draft.allowInsecure;
  config.dryRun = dryRun;
  config.checkLLM = checkLLM;
  return config;
}

ConnectFlow::AttemptPtr ConnectFlow::begin(const ConnectDraft& draft, Completion completion) {
  cancel();
  attempt_ = std::make_shared<Attempt>();
  attempt_->draft = draft;
  attempt_->completion = std::move(completion);
  return attempt_;
}

void ConnectFlow::cancel() {
  MainThread::require("ConnectFlow::cancel");
  const auto attempt = std::exchange(attempt_, nullptr);
  if (!attempt) return;
  const auto stage = attempt->commit->callOff();
  if (stage == Stage::stored) return;  // it completes as saved
  if (attempt->handle) attempt->handle->stop();
  if (stage == Stage::atStore) secrets_->cancelPrompt();
  finishLater(attempt,
              resultOf(ExitReason::stopped(), StatusText::describe(ExitReason::stopped())));
}

void ConnectFlow::dryRun(const ConnectDraft& draft, bool checkLLM, Completion completion) {
  MainThread::require("ConnectFlow::dryRun");
  prove(begin(draft, std::move(completion)), checkLLM);
}

void ConnectFlow::connect(const ConnectDraft& draft, Completion completion) {
  MainThread::require("ConnectFlow::connect");
  const auto attempt = begin(draft, std::move(completion));
  attempt->isToBeSaved = true;
  // What is wrong with the draft itself is said before the store, or the user, is asked.
  if (!draft.llmKey.empty() || !buildConfig(draft, true, true)) return prove(attempt, true);
  const auto read = [secrets = secrets_, commit = attempt->commit] {
    return readKey(*secrets, *commit);
  };
  askSecretStore(read, [self = QPointer(this), attempt](const auto& stored) {
    if (!self || !self->isUnderWay(attempt)) return;
    if (stored) return self->prove(attempt, true, stored->value_or(""));
    const auto& why = stored.error().description;
    self->finish(attempt, resultOf(ExitReason::badConfig(why),
                                   {"Could not read the Keychain", why, StatusText::Action::none}));
  });
}

/// Runs the driver with the draft, and with `storedKey` where the draft has none.
void ConnectFlow::prove(const AttemptPtr& attempt, bool checkLLM, const std::string& storedKey) {
  auto config = buildConfig(attempt->draft, true, checkLLM);
  if (!config) {
    const auto& message = config.error().message;
    AppLog::connect.info(fmt::format("[ConnectFlow] refused before running: {}", message));
    return finishLater(attempt, checkTheSetup(message));
  }
  if (config->llmKey.empty()) config->llmKey = storedKey;
  if (checkLLM && config->llmKey.empty()) {
    return finishLater(attempt, checkTheSetup("Paste the DeepSeek key first."));
  }
  if (!egoPath_()) {
    AppLog::connect.info("[ConnectFlow] ego-browser not found");
    return finishLater(
        attempt,
        resultOf(ExitReason::noExecutor("ego-browser not found in ~/.local/bin, /opt/homebrew/bin, "
                                        "/usr/local/bin or PATH"),
                 StatusText::describe(ExitReason::noExecutor(""))));
  }
  log_->write(fmt::format("» dry run (check_llm={}) against {}, token {}", checkLLM, config->server,
                          masked(config->token)));
  run(attempt, *config);
}

void ConnectFlow::run(const AttemptPtr& attempt, const DriverConfig& config) {
  const auto capture = std::make_shared<ConnectCapture>();
  const auto handle = attempt->handle = factory_->makeDriver(config, log_, capture);
  const auto keyLast4 = config.llmKey.empty() ? std::nullopt : std::optional(masked(config.llmKey));
  const auto work = [handle, capture, keyLast4] {
    const auto reason = handle->run();
    AppLog::connect.info(fmt::format("[ConnectFlow] dry run → exit {}", reason.code()));
    return resultOf(reason, StatusText::describe(reason, keyLast4), capture->username());
  };
  const auto done = [self = QPointer(this), attempt](const ConnectResult& result) {
    if (self && self->isUnderWay(attempt)) self->proven(attempt, result);
  };
  try {
    runInBackground("verdo-driver-dryrun", work, done);
  } catch (const std::system_error& error) {
    const auto reason =
        ExitReason::serverUnreachable(fmt::format("no thread for the driver: {}", error.what()));
    finishLater(attempt, resultOf(reason, StatusText::describe(reason)));
  }
}

void ConnectFlow::proven(const AttemptPtr& attempt, const ConnectResult& result) {
  attempt->handle.reset();
  if (!attempt->isToBeSaved || result.reason != ExitReason::clean()) {
    return finish(attempt, result);
  }
  const auto write = [secrets = secrets_, draft = attempt->draft, commit = attempt->commit] {
    return writeSecrets(*secrets, draft, *commit);
  };
  askSecretStore(write, [self = QPointer(this), attempt, result](const auto& written) {
    if (self) self->saved(attempt, written, result);
  });
}

void ConnectFlow::saved(const AttemptPtr& attempt, const SecretStore::Result<void>& written,
                        ConnectResult result) {
  if (attempt->commit->isCalledOff()) return;  // its completion is on its way
  if (!written) {
    const auto& why = written.error().description;
    AppLog::connect.error(fmt::format("[ConnectFlow] keychain write failed: {}", why));
    result.text = {"Could not save to the Keychain", why, StatusText::Action::none};
    return finish(attempt, result);
  }
  const auto& draft = attempt->draft;
  if (const auto url = validateServerURL(draft.serverURL, draft.allowInsecure)) {
    settings_.setServerURL(*url);
  }
  settings_.setAllowInsecure(draft.allowInsecure);
  result.saved = true;
  log_->write(fmt::format("» connected as {} — settings saved", result.username.value_or("?")));
  finish(attempt, result);
}

/// Ends an attempt, once; lets go of its secrets first, since the completion may take its time.
void ConnectFlow::finish(const AttemptPtr& attempt, const ConnectResult& result) {
  if (isUnderWay(attempt)) attempt_.reset();
  attempt->draft = {};
  if (const auto completion = std::exchange(attempt->completion, nullptr)) completion(result);
}

void ConnectFlow::finishLater(const AttemptPtr& attempt, const ConnectResult& result) {
  MainThread::post([self = QPointer(this), attempt, result] {
    if (self) self->finish(attempt, result);
  });
}

}  // namespace verdo
