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
  StatusText text;  ///< for the user
  bool operator==(const ConnectResult&) const = default;
};

/// Turns a draft into a saved setup: proves it by a dry run of the driver, and only then saves it.
/// Nothing is saved after a failed check. Main thread only.
class ConnectFlow : public QObject {
  Q_OBJECT
 public:
  /// Called exactly once, on the main thread; never when the flow is gone by then.
  using Completion = std::function<void(const ConnectResult&)>;
  /// The path of the browser tool; absent when it is not installed.
  using EgoPath = std::function<std::optional<std::string>()>;

  /// `settings` outlives the flow.
  ConnectFlow(std::shared_ptr<DriverFactory> factory, std::shared_ptr<SecretStore> secrets,
              SettingsStore& settings, std::shared_ptr<DriverLog> log, EgoPath egoPath);

  tl::expected<DriverConfig, Refusal> buildConfig(const ConnectDraft& draft, bool dryRun,
                                                  bool checkLLM) const;
  /// Checks the draft with a run that only says hello and, if wanted, checks the LLM key.
  void dryRun(const ConnectDraft& draft, bool checkLLM, Completion completion);
  /// A dry run with the key check; saves the draft when it ends clean: the secrets, all or none of
  /// them, and then the settings. With an empty key the stored one is checked, and stays.
  void connect(const ConnectDraft& draft, Completion completion);

 private:
  void prove(const ConnectDraft& draft, const std::string& key, const Completion& completion);
  void save(const ConnectDraft& draft, const ConnectResult& result, const Completion& completion);

  const std::shared_ptr<DriverFactory> factory_;
  const std::shared_ptr<SecretStore> secrets_;
  SettingsStore& settings_;
  const std::shared_ptr<DriverLog> log_;
  const EgoPath egoPath_;
};

}  // namespace verdo
