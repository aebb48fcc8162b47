#include "VerdoDriverCore/Run/Preparation.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/Network/CertificateFile.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Process/Shlex.h"
#include "VerdoDriverCore/Process/Which.h"
#include "VerdoDriverCore/Values/Url.h"

#include <algorithm>

#include <fmt/format.h>

namespace verdo {

void settleAddresses(DriverConfig& config) {
  const auto settle = [](std::string& address, const char* otherwise) {
    address = withoutTrailingSlashes(address.empty() ? otherwise : std::move(address));
  };
  settle(config.server, DriverConstants::defaultServer);
  settle(config.llmBase, DriverConstants::llmDefaultBase);
}

std::variant<ExecutorCommand, ExitReason> findExecutor(const DriverConfig& config) {
  std::vector<std::string> argv;
  try {
    argv = Shlex::split(config.execCommand);
  } catch (const Shlex::Error& error) {
    return ExitReason::noExecutor(
        fmt::format("executor command `{}` cannot be split: {}", config.execCommand, error.what()));
  }
  const std::string program = argv.empty() ? "" : argv.front();
  const auto path = argv.empty() ? std::nullopt : Which::find(program, config.extraPathDirs);
  if (!path) {
    return ExitReason::noExecutor("executor not found: " + (program.empty() ? "(empty)" : program));
  }
  return ExecutorCommand{*path, std::move(argv), executorEnvironment(*path, config.extraPathDirs)};
}

Environment executorEnvironment(const std::string& execPath,
                                const std::vector<std::string>& extraPathDirs) {
  Environment environment = currentEnvironment();
  environment.erase(DriverConstants::tokenEnv);
  environment.erase(DriverConstants::llmKeyEnv);
  // What the service manager says to this process alone.
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"})
    environment.erase(name);
  std::vector<std::string> pieces;
  const auto add = [&](const std::string& piece) {
    const bool known = std::find(pieces.begin(), pieces.end(), piece) != pieces.end();
    if (!piece.empty() && !known) pieces.push_back(piece);
  };
  const auto slash = execPath.rfind('/');
  add(slash == std::string::npos ? "" : execPath.substr(0, slash));
  for (const auto& directory : extraPathDirs) add(directory);
  const auto path = environment.find("PATH");
  pieces.push_back(path == environment.end() ? Which::kDefaultPath : path->second);
  environment["PATH"] = fmt::format("{}", fmt::join(pieces, ":"));
  return environment;
}

std::shared_ptr<Api> makeApi(const DriverConfig& config, const Timings& timings,
                             std::shared_ptr<HttpTrace> trace) {
  auto session = sessionFor(config, config.server, timings);
  if (config.caCertPath) {
    session.caCertificates = loadCertificates(*config.caCertPath);
  } else if (config.extraCaCertPath) {
    session.caCertificates = loadCertificatesBesideRoots(*config.extraCaCertPath);
  }
  Api::Options options;
  options.base = config.server;
  options.token = config.token;
  options.clientHeader = config.clientHeader;
  options.scrub.add(config.llmKey);
  options.timings = timings;
  options.trace = std::move(trace);
  // The key itself stays here, and so does a password in the provider's URL.
  const bool hasKey = !config.llmKey.empty();
  options.llmInfo =
      JV::Object{{"present", hasKey},
                 {"last4", hasKey ? JV(DriverConstants::lastFour(config.llmKey)) : JV()},
                 {"base_url", withoutUserInfo(config.llmBase)}};
  return std::make_shared<Api>(std::move(options), std::make_shared<HttpSession>(session));
}

std::shared_ptr<ChatClient> makeKeyCheck(const DriverConfig& config, const Timings& timings) {
  return std::make_shared<ChatClient>(
      config.llmKey, config.llmBase, [](const std::string&) {},
      std::make_shared<HttpSession>(sessionFor(config, config.llmBase, timings)),
      SecretScrub{config.token});
}

HttpSession::Options sessionFor(const DriverConfig& config, const std::string& url,
                                const Timings& timings) {
  HttpSession::Options session;
  session.pingTimeout = timings.pingTimeout;
  if (config.proxyFor) session.proxy = config.proxyFor(url);
  return session;
}

std::string howToGive(const char* variable, const std::string& envFile) {
  return fmt::format("export {0}=..., or put {0}=... in {1} (chmod 600). Issue one in the UI.",
                     variable, envFile);
}

}  // namespace verdo
