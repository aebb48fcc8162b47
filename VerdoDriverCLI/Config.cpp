#include "VerdoDriverCLI/Config.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/EnvFile.h"
#include "VerdoDriverCore/Contract/Executor.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/Url.h"

#include <map>

namespace verdo::cli {
namespace {

/// The variable's value; empty when it has none.
std::string valueIn(const std::map<std::string, std::string>& variables, const char* name) {
  const auto entry = variables.find(name);
  return entry == variables.end() ? std::string() : entry->second;
}

/// The first of the values that is not empty.
std::string firstGiven(std::initializer_list<std::string> values) {
  for (const auto& value : values) {
    if (!value.empty()) return value;
  }
  return "";
}

std::string secret(const std::string& fromEnvironment, const std::string& fromFile,
                   const char* what) {
  auto value = firstGiven({trimmedSecret(fromEnvironment), trimmedSecret(fromFile)});
  if (const auto refusal = secretRefusal(what, value)) throw PyError("ValueError", *refusal);
  return value;
}

}  // namespace

DriverConfig resolveConfig(Options options, const Environment& environment,
                           const Secrets& secrets) {
  using namespace DriverConstants;
  DriverConfig config = std::move(options.config);
  const auto file = EnvFile::read(config.envFilePath.value_or(envFile()));
  config.token = secret(secrets.token, valueIn(file, tokenEnv), "driver token");
  config.llmKey = secret(secrets.llmKey, valueIn(file, llmKeyEnv), "LLM key");
  config.server =
      lowerScheme(firstGiven({options.server.value_or(""), valueIn(environment, serverEnv),
                              valueIn(file, serverEnv), defaultServer}));
  config.llmBase =
      lowerScheme(firstGiven({options.llmBase.value_or(""), valueIn(environment, llmBaseEnv),
                              valueIn(file, llmBaseEnv), llmDefaultBase}));
  config.execCommand =
      options.exec ? *options.exec : Executor::defaultCommand(config.extraPathDirs);
  return config;
}

}  // namespace verdo::cli
