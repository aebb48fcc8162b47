#pragma once

#include "VerdoDriver/Model/DriverFactory.h"
#include "VerdoDriver/Model/DriverLog.h"
#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Model/ServerURL.h"
#include "VerdoDriver/Model/SettingsStore.h"
#include "VerdoDriver/Model/StatusText.h"

#include <QObject>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <tl/expected.hpp>

namespace verdo {

/// What the user typed, or what pairing or an old installation delivered. Holds secrets.
struct ConnectDraft {
  std::string serverURL;
  std::string token;
  std::string llmKey;  ///< empty: the stored key stays
  bool allowInsecure = false;
};

/// What came of a check.
struct ConnectResult {
  ExitReason reason;
  std::optional<std::string> username;
  StatusText text;     ///< for the user
  bool saved = false;  ///< the whole draft is stored; never with another reason than clean
  bool operator==(const ConnectResult&) const = default;
};

/// Turns a draft into a saved setup: proves it by a dry run of the driver, and only then saves it.
/// Main thread only.
///
/// One attempt at a time: the next one supersedes it. An attempt that failed, was superseded or was
/// cancelled has saved nothing. Before the process ends: cancel(), then endSecretWork()
/// (SecretTask.h), then endProcess() (App/EndProcess.h), since a dry run that was told to stop may
/// still be at work.
class ConnectFlow : public QObject {
  Q_OBJECT
 public:
  /// Called exactly once, on the main thread, never inside the call that took it; not when the flow
  /// is gone by then. With the reason `stopped` after a cancel or for an attempt that was
  /// superseded.
  using Completion = std::function<void(const ConnectResult&)>;
  /// The path of the browser tool; absent when it is not installed.
  using EgoPath = std::function<std::optional<std::string>()>;

  /// `settings` outlives the flow. `llmBase`: base URL of the LLM provider; empty: the default one.
  ConnectFlow(std::shared_ptr<DriverFactory> factory, std::shared_ptr<SecretStore> secrets,
              SettingsStore& settings, std::shared_ptr<DriverLog> log, EgoPath egoPath,
              std::string llmBase = {});
  ~ConnectFlow() override;

  [[nodiscard]] tl::expected<DriverConfig, Refusal> buildConfig(const ConnectDraft& draft,
                                                                bool dryRun, bool checkLLM) const;
  /// Checks the draft with a run that only says hello and, if wanted, checks the LLM key.
  void dryRun(const ConnectDraft& draft, bool checkLLM, Completion completion);
  /// A dry run with the key check; saves the draft when it ends clean: the secrets, all or none of
  /// them, and then the settings. With an empty key the stored one is checked, and stays; the
  /// system may ask the user to unlock it.
  void connect(const ConnectDraft& draft, Completion completion);
  /// Ends the attempt that is under way, its dry run or its question to the user. What was stored
  /// completely by now stays, and is told as saved.
  void cancel();

 private:
  struct Attempt;
  using AttemptPtr = std::shared_ptr<Attempt>;

  AttemptPtr begin(const ConnectDraft& draft, Completion completion);
  bool isUnderWay(const AttemptPtr& attempt) const { return attempt_ == attempt; }
  void prove(const AttemptPtr& attempt, bool checkLLM, const std::string& storedKey = {});
  void run(const AttemptPtr& attempt, const DriverConfig& config);
  void proven(const AttemptPtr& attempt, const ConnectResult& result);
  void saved(const AttemptPtr& attempt, const SecretStore::Result<void>& written,
             ConnectResult result);
  void finish(const AttemptPtr& attempt, const ConnectResult& result);
  void finishLater(const AttemptPtr& attempt, const ConnectResult& result);

  const std::shared_ptr<DriverFactory> factory_;
  const std::shared_ptr<SecretStore> secrets_;
  SettingsStore& settings_;
  const std::shared_ptr<DriverLog> log_;
  const EgoPath egoPath_;
  const std::string llmBase_;
  AttemptPtr attempt_;  ///< that is under way
};

}  // namespace verdo
