#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Network/HttpSession.h"
#include "VerdoDriverCore/Network/HttpTrace.h"
#include "VerdoDriverCore/Process/Spawn.h"

#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace verdo {

class Api;
class ChatClient;

// What a run makes of its configuration, for whoever needs the very same without a run.

/// Fills in the addresses that the configuration leaves open, and drops slashes at their ends.
void settleAddresses(DriverConfig& config);

/// The executor that the configuration names, ready to be started; or why there is none.
std::variant<ExecutorCommand, ExitReason> findExecutor(const DriverConfig& config);

/// This process's environment for executor children: PATH begins with the executor's directory
/// and `extraPathDirs`, and neither secret is in it.
Environment executorEnvironment(const std::string& execPath,
                                const std::vector<std::string>& extraPathDirs);

/// The way to the configuration's service, once its addresses are settled. `trace`, if any, is
/// filled in by each call. Throws PyError for certificates that cannot be read.
std::shared_ptr<Api> makeApi(const DriverConfig& config, const Timings& timings,
                             std::shared_ptr<HttpTrace> trace = nullptr);

/// Asks the provider with the configuration's key, and logs nothing. Throws PyError for a base URL
/// that cannot be used.
std::shared_ptr<ChatClient> makeKeyCheck(const DriverConfig& config, const Timings& timings);

/// How to ask for a URL: through which proxy, above all.
HttpSession::Options sessionFor(const DriverConfig& config, const std::string& url,
                                const Timings& timings);

/// How to give a secret to a headless driver, for messages.
std::string howToGive(const char* variable, const std::string& envFile);

}  // namespace verdo
