#include "VerdoDriver/Model/ConnectFlow.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Background.h"
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

/// Writes what the draft has of secrets, all of it or nothing.
SecretStore::Result<void> writeSecrets(SecretStore& secrets, const ConnectDraft& draft) {
  const auto before = secrets.read(SecretAccount::driverToken);
  if (!before) return tl::make_unexpected(before.error());
  if (!draft.token.empty()) {
    if (auto written = secrets.write(draft.token, SecretAccount::driverToken); !written) {
      return written;
    }
  }
  if (draft.llmKey.empty()) return {};
  auto written = secrets.write(draft.llmKey, SecretAccount::llmKey);
  if (!written && !draft.token.empty()) {
    // A store that has just failed may fail again; nothing more can be done then.
    static_cast<void>(*before ? secrets.write(**before, SecretAccount::driverToken)
                              : secrets.remove(SecretAccount::driverToken));
  }
  return written;
}

}  // namespace

ConnectFlow::ConnectFlow(std::shared_ptr<DriverFactory> factory,
                         std::shared_ptr<SecretStore> secrets, SettingsStore& settings,
                         std::shared_ptr<DriverLog> log, EgoPath egoPath)
    : factory_(std::move(factory)),
      secrets_(std::move(secrets)),
      settings_(settings),
      log_(std::move(log)),
      egoPath_(std::move(egoPath)) {}

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
  config.insecure = draft.allowInsecure;
  config.dryRun = dryRun;
  config.checkLLM = checkLLM;
  return config;
}

void ConnectFlow::dryRun(const ConnectDraft& draft, bool checkLLM, Completion completion) {
  MainThread::require("ConnectFlow::dryRun");
  const auto config = buildConfig(draft, true, checkLLM);
  if (!config) {
    const auto& message = config.error().message;
    AppLog::connect.info(fmt::format("[ConnectFlow] refused before running: {}", message));
    return completion(checkTheSetup(message));
  }
  if (checkLLM && config->llmKey.empty()) {
    return completion(checkTheSetup("Paste the DeepSeek key first."));
  }
  if (!egoPath_()) {
    AppLog::connect.info("[ConnectFlow] ego-browser not found");
    return completion(
        resultOf(ExitReason::noExecutor("ego-browser not found in ~/.local/bin, /opt/homebrew/bin, "
                                        "/usr/local/bin or PATH"),
                 StatusText::describe(ExitReason::noExecutor(""))));
  }
  log_->write(fmt::format("» dry run (check_llm={}) against {}, token {}", checkLLM, config->server,
                          masked(config->token)));
  const auto capture = std::make_shared<ConnectCapture>();
  const auto handle = factory_->makeDriver(*config, log_, capture);
  const auto keyLast4 =
      config->llmKey.empty() ? std::nullopt : std::optional(masked(config->llmKey));
  const auto run = [handle, capture] {
    const auto reason = handle->run();
    AppLog::connect.info(fmt::format("[ConnectFlow] dry run → exit {}", reason.code()));
    return resultOf(reason, {}, capture->username());
  };
  const auto done = [self = QPointer(this), keyLast4,
                     completion = std::move(completion)](ConnectResult result) {
    if (!self) return;
    result.text = StatusText::describe(result.reason, keyLast4);
    completion(result);
  };
  try {
    runInBackground("verdo-driver-dryrun", run, done);
  } catch (const std::system_error& error) {
    done(resultOf(
        ExitReason::serverUnreachable(fmt::format("no thread for the driver: {}", error.what())),
        {}));
  }
}

void ConnectFlow::connect(const ConnectDraft& draft, Completion completion) {
  MainThread::require("ConnectFlow::connect");
  if (!draft.llmKey.empty()) return prove(draft, draft.llmKey, completion);
  // The stored key stays, and is checked in its place.
  const auto read = [secrets = secrets_] { return secrets->read(SecretAccount::llmKey); };
  askSecretStore(read, [self = QPointer(this), draft, completion](const auto& stored) {
    if (!self) return;
    if (stored) return self->prove(draft, stored->value_or(""), completion);
    const auto& why = stored.error().description;
    completion(resultOf(ExitReason::badConfig(why),
                        {"Could not read the Keychain", why, StatusText::Action::none}));
  });
}

/// Tries the draft with this key, and saves the draft if it proves good.
void ConnectFlow::prove(const ConnectDraft& draft, const std::string& key,
                        const Completion& completion) {
  ConnectDraft tried = draft;
  tried.llmKey = key;
  dryRun(tried, true, [this, draft, completion](const ConnectResult& result) {
    if (result.reason != ExitReason::clean()) return completion(result);
    save(draft, result, completion);
  });
}

void ConnectFlow::save(const ConnectDraft& draft, const ConnectResult& result,
                       const Completion& completion) {
  const auto write = [secrets = secrets_, draft] { return writeSecrets(*secrets, draft); };
  const auto written = [self = QPointer(this), draft, result,
                        completion](const SecretStore::Result<void>& outcome) {
    if (!self) return;
    if (!outcome) {
      const auto& why = outcome.error().description;
      AppLog::connect.error(fmt::format("[ConnectFlow] keychain write failed: {}", why));
      ConnectResult unsaved = result;
      unsaved.text = {"Could not save to the Keychain", why, StatusText::Action::none};
      return completion(unsaved);
    }
    if (const auto url = validateServerURL(draft.serverURL, draft.allowInsecure)) {
      self->settings_.setServerURL(*url);
    }
    self->settings_.setAllowInsecure(draft.allowInsecure);
    self->log_->write(
        fmt::format("» connected as {} — settings saved", result.username.value_or("?")));
    completion(result);
  };
  askSecretStore(write, written);
}

}  // namespace verdo
