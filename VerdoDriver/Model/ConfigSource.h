#pragma once

#include "VerdoDriver/Model/DriverSupervisor.h"
#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Model/SettingsStore.h"

#include <QObject>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// Makes the configuration of a driver run from what is set and stored at that time. Main thread
/// only.
class ConfigSource : public QObject {
  Q_OBJECT
 public:
  /// What there is to run with, whether it is enough or not.
  struct Outlook {
    DriverConfig config;  ///< server, token and key are empty where there is none, or none is known
    std::optional<SecretError> error;  ///< why the secret store does not tell token and key
  };
  using Reply = std::function<void(const Outlook&)>;

  /// `settings` outlives it. `llmBase`: base URL of the LLM provider; empty: the default one.
  /// `clientHeader`: how the app presents itself to the service.
  ConfigSource(SettingsStore& settings, std::shared_ptr<SecretStore> secrets, std::string llmBase,
               std::string clientHeader);

  /// Asks the secret store, and never the user. `reply` comes later, once, unless the source is
  /// gone by then.
  void ask(const Reply& reply) const;
  /// For the supervisor: gives a configuration that is enough for a run, or none.
  DriverSupervisor::ConfigProvider provider();

 private:
  DriverConfig configOf(const std::string& token, const std::string& key) const;
  void provide(const DriverSupervisor::ConfigReply& reply) const;

  SettingsStore& settings_;
  const std::shared_ptr<SecretStore> secrets_;
  const std::string llmBase_;
  const std::string clientHeader_;
};

}  // namespace verdo
