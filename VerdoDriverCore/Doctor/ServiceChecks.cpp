#include "VerdoDriverCore/Doctor/ServiceChecks.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Jobs/Job.h"
#include "VerdoDriverCore/Network/LineBatch.h"
#include "VerdoDriverCore/Run/Hello.h"
#include "VerdoDriverCore/Run/Runner.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <cmath>

#include <fmt/format.h>

namespace verdo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLargestBody = 8u << 20;  // bytes, as a busy job posts them
constexpr std::size_t kSmallestBody = 64u << 10;
/// No service gives this number to a job.
constexpr std::int64_t kNoJob = 0;
/// What a wait, seconds, may be short of and still count as waited for.
constexpr double kEarly = 0.5;
/// Of a wait that a proxy allows, what the driver stays below it, and the least it asks for.
constexpr double kMargin = 2;
constexpr double kShortestWait = 5;

Finding badHello(const std::string& reason, const std::string& remedy, const std::string& detail) {
  return Finding::failed(kHelloCheck, reason, remedy, detail);
}

bool isWebPage(const HttpTrace& trace) { return trace.contentType.starts_with("text/html"); }

/// A hello whose reply was not the service's, or a refusal.
Finding refusedHello(const HttpTrace& trace, const std::string& said, const Remedies& remedies) {
  if (trace.status == 0) {
    return badHello("connected, but no reply came",
                    "Check the port in the server address, and whether the service runs.", said);
  }
  if (trace.status == 401) {
    return badHello("the service does not accept the driver token: it is wrong, or was revoked",
                    remedies.renewToken, said);
  }
  if (trace.status == 426) {
    return badHello(
        "the service no longer speaks this driver's protocol: the driver is out of date",
        "Install the current driver.", said);
  }
  if ((trace.status < 400 && isWebPage(trace)) || trace.status / 100 == 3 || trace.status == 511) {
    return badHello("a web page answered in place of the service",
                    "Open any page in a browser: the network may want a login first. If not, check "
                    "the server address.",
                    trace.redirect.empty() ? said : "it leads to " + trace.redirect);
  }
  if (trace.status == 404 || trace.status == 405) {
    return badHello("there is a web server, but no Verdo service at this address",
                    "Check the server address, its path included.", said);
  }
  if (trace.status == 429) {
    return badHello("the service asks to come later (status 429)", "Try again in a minute.", said);
  }
  if (trace.status >= 500) {
    return badHello(
        fmt::format("the service, or a proxy before it, is out of order (status {})", trace.status),
        "Try again later; if it stays so, tell whoever runs the service.", said);
  }
  return badHello(trace.status >= 400
                      ? fmt::format("the service refuses the hello (status {})", trace.status)
                      : "what answers is no Verdo service",
                  "Check the server address.", said);
}

Finding otherProtocol(std::int64_t protocol, const std::string& said) {
  const auto reason = [&](const char* who) {
    return fmt::format("the service speaks protocol {}, this driver {}: {} is out of date",
                       protocol, DRIVER_PROTOCOL, who);
  };
  if (protocol > DRIVER_PROTOCOL) {
    return badHello(reason("the driver"), "Install the current driver.", said);
  }
  return badHello(reason("the service"),
                  "Have the service updated, or install the driver that belongs to it.", said);
}

std::string inWords(std::size_t bytes) {
  return bytes >= 1u << 20 ? fmt::format("{} MiB", bytes >> 20)
                           : fmt::format("{} KiB", bytes >> 10);
}

std::shared_ptr<const ByteBuffer> bodyOf(std::size_t bytes) {
  const std::string line(16u << 10, 'x');
  LineBatch batch;
  while (batch.bytes() + line.size() < bytes) batch.add(line);
  return std::make_shared<const ByteBuffer>(std::move(batch).finish());
}

/// What a post of so many bytes met: "" when it came through to the service, whatever that said.
std::string obstacleFor(std::size_t bytes, Api& api, const HttpTrace& trace) try {
  api.lines(kNoJob, bodyOf(bytes));
  return "";
} catch (const ServerError& error) {
  using Cause = ServerError::Cause;
  const bool isStopped = error.cause() == Cause::bodyTooLarge ||
                         error.cause() == Cause::streamReset || trace.status == 0;
  return isStopped ? error.what() : "";
}

}  // namespace

HelloOutcome checkHello(Api& api, const HttpTrace& trace, const DriverConfig& config,
                        const Remedies& remedies) {
  JV reply;
  try {
    reply = api.hello();
  } catch (const ServerError& error) {
    return {refusedHello(trace, error.what(), remedies), error.what()};
  }
  const auto answer = Hello::from(reply, config);
  if (const auto* refusal = std::get_if<ExitReason>(&answer)) {
    const auto protocol = pyInt(reply.find("protocol"));
    return {protocol ? otherProtocol(*protocol, refusal->message())
                     : refusedHello(trace, refusal->message(), remedies),
            ""};
  }
  const auto& hello = std::get<Hello>(answer);
  const std::string user = fmt::format("{} (user {})", hello.username, hello.userIdText);
  if (hello.patternDefect) {
    return {Finding::warning(kHelloCheck,
                             "the service knows this driver, but its space_pattern is unusable",
                             "Tell whoever runs the service.", user + ": " + *hello.patternDefect),
            ""};
  }
  return {Finding::ok(kHelloCheck,
                      fmt::format("the service knows this driver, for {} job(s) at "
                                  "once",
                                  hello.maxJobs),
                      user),
          ""};
}

Finding checkLongPoll(Api& api, const HttpTrace& trace, double wait) {
  const auto begin = Clock::now();
  const auto waited = [&] { return toSeconds(Clock::now() - begin); };
  const std::string raise =
      fmt::format("Raise the proxy's time-out (nginx: proxy_read_timeout) above {:.0f} s", wait);
  const std::string remedy = raise + ", or lower the wait with --poll-wait.";
  std::optional<JsonReading> reply;
  try {
    reply = api.poll(wait, {});
  } catch (const ServerError& error) {
    const double after = waited();
    if (error.cause() == ServerError::Cause::waitTooLong) {
      const double shorter = std::floor(after - kMargin);
      return Finding::warning(
          kPollCheck, fmt::format("a proxy on the way ends long polls after {:.0f} s", after),
          shorter < kShortestWait
              ? raise + "."
              : fmt::format("{}, or lower the wait with --poll-wait {:.0f}.", raise, shorter),
          error.what());
    }
    if (trace.status == 0) {
      return Finding::failed(
          kPollCheck, fmt::format("something on the way cuts long polls off after {:.0f} s", after),
          remedy, error.what());
    }
    return Finding::failed(
        kPollCheck, fmt::format("the poll was refused (status {})", trace.status),
        "Try again later; if it stays so, tell whoever runs the service.", error.what());
  }
  JV object = reply ? std::move(reply->value) : JV();
  if (JV job = object.take("job"); !job.isNull()) {
    const auto read = Job::from(std::move(job));
    return Finding::warning(
        kPollCheck,
        fmt::format("job {} came, which ended the poll; it was not acknowledged, and is offered "
                    "again when its lease has run out",
                    read ? std::to_string(read->id) : "without a number"),
        "Once no job is waiting, ask again.", read ? read->label : "");
  }
  if (waited() + kEarly < wait) {
    return Finding::warning(
        kPollCheck,
        fmt::format("a poll was answered after {:.1f} s, without a job, instead of {:.0f} s",
                    waited(), wait),
        remedy);
  }
  return Finding::ok(kPollCheck, fmt::format("a poll may wait for {:.0f} s", wait));
}

Finding checkLargeBodies(Api& api, const HttpTrace& trace) {
  std::string obstacle;  // that the last one met
  for (std::size_t bytes = kLargestBody; bytes >= kSmallestBody; bytes /= 2) {
    const auto met = obstacleFor(bytes, api, trace);
    if (!met.empty()) {
      obstacle = met;
      continue;
    }
    if (bytes == kLargestBody) {
      return Finding::ok(kBodyCheck, fmt::format("posts of {} come through", inWords(bytes)));
    }
    return Finding::warning(
        kBodyCheck,
        fmt::format("a proxy on the way lets posts of {} through, but none of {}", inWords(bytes),
                    inWords(bytes * 2)),
        "The driver makes its posts smaller; larger ones (nginx: client_max_body_size 10m) save "
        "requests.",
        obstacle);
  }
  return Finding::failed(kBodyCheck,
                         fmt::format("not even posts of {} come through", inWords(kSmallestBody)),
                         "Have the limit for bodies raised, on the proxy (nginx: "
                         "client_max_body_size) or the service.",
                         obstacle);
}

Finding checkKey(ChatClient& client, const DriverConfig& config, const Remedies& remedies) {
  const auto check = client.validate();
  const std::string host = DriverRunner::hostname(config.llmBase);
  const std::string key =
      fmt::format("key …{} at {}", DriverConstants::lastFour(config.llmKey), host);
  switch (check.verdict) {
    case KeyCheck::Verdict::accepted:
      return Finding::ok(kKeyCheck, "the provider accepts it", key);
    case KeyCheck::Verdict::rejected:
      return Finding::failed(kKeyCheck, "the provider rejects it", remedies.renewKey, key);
    case KeyCheck::Verdict::unreachable:
      break;
  }
  return Finding::warning(kKeyCheck, "the provider could not be asked about it",
                          remedies.providerAway, fmt::format("{}: {}", key, check.reason));
}

}  // namespace verdo
