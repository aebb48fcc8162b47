#include "VerdoDriverCore/Run/Hello.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Contract/SecretScrub.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <algorithm>

#include <fmt/format.h>

namespace verdo {
namespace {

// What holds when the service says nothing.
constexpr int kLanes = 3;
constexpr double kIdleClose = 600;      // seconds
constexpr double kReapInterval = 60;    // seconds
constexpr double kCleanupTimeout = 45;  // seconds

/// More than any computer serves; a guard against nonsense.
constexpr std::int64_t kMaxLanes = 1000;

/// The same for the time between two looks of the reaper, each of which starts the executor, for
/// that after which it closes a space, and for that in which a space must have been closed.
constexpr double kMinInterval = 1;  // seconds

/// A positive number of seconds from the service, but no moment; or the default.
double intervalOr(const JV* value, double fallback) {
  const auto number = value ? value->number() : std::nullopt;
  return std::max(number && *number > 0 ? *number : fallback, kMinInterval);
}

std::string shown(const JV* value) { return pyStr(value).value_or("?"); }

/// Why the run cannot go on with this protocol, if so.
std::optional<ExitReason> protocolMismatch(const JV* value, const SecretScrub& scrub) {
  const auto protocol = pyInt(value);
  if (!protocol) {
    return ExitReason::serverUnreachable("ValueError: invalid literal for int(): " +
                                         scrub.scrubbed(pyStr(value).value_or("None")));
  }
  if (*protocol == DRIVER_PROTOCOL) return std::nullopt;
  return ExitReason::outOfDate(
      fmt::format("server speaks driver protocol {}, this driver speaks {} — {}", *protocol,
                  DRIVER_PROTOCOL, DriverConstants::outOfDateHint));
}

}  // namespace

std::variant<Hello, ExitReason> Hello::from(const JV& reply, const DriverConfig& config) {
  const SecretScrub scrub{config.token, config.llmKey};
  if (auto mismatch = protocolMismatch(reply.find("protocol"), scrub)) return std::move(*mismatch);
  Hello hello;
  const JV* user = reply.find("user");
  const JV* userId = user ? user->find("id") : nullptr;
  hello.username = shown(user ? user->find("username") : nullptr);
  hello.userIdText = shown(userId);
  hello.userId = pyInt(userId).value_or(0);
  hello.serverVersion = shown(reply.find("driver_version"));

  const auto offered = pyInt(reply.find("max_jobs")).value_or(kLanes);
  const std::int64_t ceiling =
      std::min<std::int64_t>(config.maxJobsCeiling.value_or(kMaxLanes), kMaxLanes);
  hello.maxJobs = config.maxJobs.value_or(0) != 0
                      ? *config.maxJobs
                      : static_cast<int>(std::clamp<std::int64_t>(offered, 1, ceiling));
  hello.idleClose =
      config.idleClose.value_or(intervalOr(reply.find("idle_close_seconds"), kIdleClose));
  hello.reapInterval =
      config.reapInterval.value_or(intervalOr(reply.find("reap_interval_seconds"), kReapInterval));
  hello.cleanupTimeout = intervalOr(reply.find("cleanup_timeout_seconds"), kCleanupTimeout);
  if (const auto pattern = pyStrIfTruthy(reply.find("space_pattern"))) {
    try {
      hello.spacePattern = SpacePattern(*pattern);
    } catch (const PyError& error) {
      hello.patternDefect = error.what();
    }
  }
  return hello;
}

}  // namespace verdo
