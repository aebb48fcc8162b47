#include "VerdoDriver/Model/ConfigSource.h"

#include "VerdoDriver/Model/EgoLocator.h"
#include "VerdoDriver/Model/SecretTask.h"

#include <QPointer>
#include <utility>

namespace verdo {

ConfigSource::ConfigSource(SettingsStore& settings, std::shared_ptr<SecretStore> secrets,
                           std::string llmBase, std::string clientHeader)
    : settings_(settings),
      secrets_(std::move(secrets)),
      llmBase_(std::move(llmBase)),
      clientHeader_(std::move(clientHeader)) {}

void ConfigSource::ask(const Reply& reply) const {
  using Pair = std::pair<std::string, std::string>;
  const auto read = [secrets = secrets_]() -> SecretStore::Result<Pair> {
    const auto token = secrets->read(SecretAccount::driverToken);
    if (!token) return tl::make_unexpected(token.error());
    const auto key = secrets->read(SecretAccount::llmKey);
    if (!key) return tl::make_unexpected(key.error());
    return Pair{token->value_or(""), key->value_or("")};
  };
  askSecretStore(read, [self = QPointer(this), reply](const SecretStore::Result<Pair>& pair) {
    if (!self) return;
    if (!pair) return reply({self->configOf("", ""), pair.error()});
    reply({self->configOf(pair->first, pair->second), std::nullopt});
  });
}

DriverSupervisor::ConfigProvider ConfigSource::provider() {
  return [self = QPointer(this)](const DriverSupervisor::ConfigReply& reply) {
    if (self) {
      self->provide(reply);
    } else {
      reply(std::nullopt);
    }
  };
}

void ConfigSource::provide(const DriverSupervisor::ConfigReply& reply) const {
  if (settings_.serverURL().empty()) return reply(std::nullopt);
  ask([reply](const Outlook& outlook) {
    if (outlook.error) return reply(tl::make_unexpected(*outlook.error));
    const auto& config = outlook.config;
    const bool isEnough = !config.server.empty() && !config.token.empty();
    reply(isEnough ? std::optional(config) : std::nullopt);
  });
}

DriverConfig ConfigSource::configOf(const std::string& token, const std::string& key) const {
  DriverConfig config(settings_.serverURL(), token);
  config.execCommand = EgoLocator::command();
  config.extraPathDirs = EgoLocator::extraPathDirs();
  config.llmKey = key;
  if (!llmBase_.empty()) config.llmBase = llmBase_;
  config.insecure = settings_.allowInsecure();
  config.maxJobsCeiling = DriverConstants::maxJobsCeiling;
  config.clientHeader = clientHeader_;
  return config;
}

}  // namespace verdo
