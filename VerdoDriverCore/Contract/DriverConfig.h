#pragma once

#include "VerdoDriverCore/Contract/DriverConstants.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace verdo {

/// Everything that one driver run needs to know. A plain value; it holds both secrets, so it is
/// shown to people through description() only.
struct DriverConfig {
  DriverConfig() = default;
  DriverConfig(std::string serverUrl, std::string driverToken)
      : server(std::move(serverUrl)), token(std::move(driverToken)) {}

  std::string server = DriverConstants::defaultServer;  ///< base URL of the service
  std::string token;                                    ///< driver token, the bearer credential
  std::string execCommand = DriverConstants::defaultExecutor;  ///< split like a shell does
  std::vector<std::string> extraPathDirs;  ///< searched before PATH for the executor
  double pollWait = 25.0;                  ///< long-poll wait, seconds
  std::optional<int> maxJobs;              ///< lanes; absent: the server decides
  std::optional<int> maxJobsCeiling;       ///< lanes that the server may ask for at most
  std::optional<int> serveJobs;            ///< end after this many jobs
  std::optional<double> idleExit;          ///< end after this long without a job, seconds
  std::optional<double> idleClose;         ///< overrides the server's idle_close_seconds, seconds
  std::optional<double> reapInterval;     ///< overrides the server's reap_interval_seconds, seconds
  bool sweepAll = false;                  ///< at start, close every task space, not only our own
  bool noSweep = false;                   ///< skip the sweep of task spaces at start
  bool insecure = false;                  ///< allow plain http to a host that is not loopback
  std::optional<std::string> caCertPath;  ///< PEM file; its certificates become the only anchors
  std::optional<std::string> extraCaCertPath;  ///< PEM file, trusted beside the system's roots
  bool dryRun = false;                         ///< check configuration and server, then end
  bool checkLLM = false;                       ///< validate the LLM key before serving
  std::string llmKey;                          ///< provider key; empty: there is none
  std::string llmBase = DriverConstants::llmDefaultBase;  ///< base URL of the provider
  std::optional<std::string> clientHeader;  ///< value of the X-VERDO-Driver-Client header
  std::optional<std::string> envFilePath;   ///< absent: DriverConstants::envFile()
  /// The proxy for a URL; none, or an empty text: what the environment says. Called on the run's
  /// thread; may block for some seconds.
  std::function<std::string(const std::string& url)> proxyFor;

  /// One line for logs; secrets show as "…" and their last four characters.
  std::string description() const;
};

}  // namespace verdo
