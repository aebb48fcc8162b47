#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Doctor/Finding.h"
#include "VerdoDriverCore/Doctor/Remedies.h"
#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Network/HttpTrace.h"

#include <memory>
#include <string>

namespace verdo {

// What only the service, or the provider, can answer. Each blocks its caller for that long.

inline constexpr const char* kHelloCheck = "hello";
inline constexpr const char* kKeyCheck = "LLM key";
inline constexpr const char* kPollCheck = "long poll";
inline constexpr const char* kBodyCheck = "large bodies";

/// A hello that was said: what the finding is, and why the request failed ("": it did not).
struct HelloOutcome {
  Finding finding;
  std::string failure;
};

// `trace` is that of the Api.

/// Says hello and judges the answer. That the request failed on its way is for who looks at the
/// trace.
HelloOutcome checkHello(Api& api, const HttpTrace& trace, const DriverConfig& config,
                        const Remedies& remedies);

/// Polls once with the configuration's wait. A job that comes is left to its lease.
Finding checkLongPoll(Api& api, const HttpTrace& trace, double wait);

/// Posts lines of no job, 8 MiB at first and then half as many, until a post comes through.
Finding checkLargeBodies(Api& api, const HttpTrace& trace);

/// Asks the provider about the key.
Finding checkKey(ChatClient& client, const DriverConfig& config, const Remedies& remedies);

}  // namespace verdo
