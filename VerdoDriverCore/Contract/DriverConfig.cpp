#include "VerdoDriverCore/Contract/DriverConfig.h"

#include "VerdoDriverCore/Values/PyJSON.h"

#include <fmt/format.h>

namespace verdo {
namespace {

std::string masked(const std::string& secret) {
  return secret.empty() ? "none" : "…" + DriverConstants::lastFour(secret);
}

}  // namespace

std::string DriverConfig::description() const {
  return fmt::format(
      "DriverConfig(server: {}, token: {}, exec: {}, llmKey: {}, llmBase: {}, maxJobs: {}, "
      "pollWait: {}, insecure: {}, dryRun: {}, checkLLM: {}, client: {})",
      server, masked(token), execCommand, masked(llmKey), llmBase,
      maxJobs ? std::to_string(*maxJobs) : "server", PyJSON::pyFloat(pollWait), insecure, dryRun,
      checkLLM, clientHeader.value_or("none"));
}

}  // namespace verdo
