#include "VerdoDriverCore/Jobs/Worker.h"

#include "VerdoDriverCore/Network/Errors.h"
#include "VerdoDriverCore/System/ThreadName.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <system_error>
#include <thread>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr std::int32_t kDriverFailed = 127;
/// So many replies in a row that say so make a job no longer ours: one alone may be a hiccup.
constexpr int kRefusalsUntilLost = 2;
/// A stream that ended early says nothing of the size of a body up to this one, bytes.
constexpr std::size_t kMaxBlamelessBody = 64 * 1024;
/// What is left of an error text that is too long for the way to the service, characters.
constexpr std::size_t kMaxErrorCharacters = 1000;

bool isWorthRetrying(const ServerError& error) { return error.kind() == ServerError::Kind::server; }

/// A smaller body may get through where this one did not.
bool isForItsSize(const ServerError& error, std::size_t size) {
  if (error.cause() == ServerError::Cause::bodyTooLarge) return size > BodyLimit::kMinBytes;
  return error.cause() == ServerError::Cause::streamReset && size > kMaxBlamelessBody;
}

/// Lets a failure through the retry rule, to whoever can do better than try again.
struct BodyRefused {};

}  // namespace

Worker::Worker(std::shared_ptr<JobHost> host, Job job)
    : host_(std::move(host)), job_(std::move(job)), body_(makeJobBody(job_, *this)) {}

Worker::~Worker() = default;

void Worker::start() try {
  std::thread([self = shared_from_this()] {
    setThreadName(fmt::format("job-{}", self->job_.id));
    self->run();
  }).detach();
} catch (const std::system_error& failure) {
  fail(failure);
  throw;
}

void Worker::run() {
  try {
    runInner();
  } catch (const ServerError& failure) {
    if (failure.kind() == ServerError::Kind::auth) {
      host_->log().error(prefixed(failure.what()));
      host_->tokenWasRevoked();
    } else {
      reportFailure(failure);
    }
  } catch (const LeaseLost&) {
    // Said already; whoever has the job now does not want to hear of us.
  } catch (const std::exception& failure) {
    reportFailure(failure);
  }
  cleanUp();
}

void Worker::runInner() {
  if (!acknowledge()) return;
  runBody();
  completeAndReport();
}

/// Tells the service that the job has arrived. False when the job is not to be run.
bool Worker::acknowledge() {
  LinesReply reply;
  try {
    const auto body = std::make_shared<const ByteBuffer>(LineBatch().finish());
    // Short on purpose: a job that cannot be acknowledged is soon offered to somebody else.
    retry(
        Clock::now(), [this] { return host_->timings().acknowledgeDeadline; },
        [&](auto cap) { reply = LinesReply::from(host_->api().lines(job_.id, body, cap)); });
  } catch (const ServerError& error) {
    if (error.kind() == ServerError::Kind::auth) throw;
    host_->log().warn(prefixed(
        fmt::format("could not acknowledge delivery, dropping it unrun: {}", error.what())));
    return false;
  }
  if (reply.ok && !reply.cancel) return true;
  host_->log().warn(prefixed(
      fmt::format("no longer ours (state={}); dropping it unrun", reply.state.value_or("None"))));
  return false;
}

/// Has the body do the job. When that fails, nothing of it is left at work.
void Worker::runBody() {
  try {
    outcome_ = body_->run();
  } catch (const ServerError& error) {
    loseServer(error);
    if (error.kind() == ServerError::Kind::auth) throw;
  } catch (...) {
    kill();
    outcome_.exitCode = body_->abandon();
    throw;
  }
}

void Worker::loseServer(const ServerError& error) {
  const bool revoked = error.kind() == ServerError::Kind::auth;
  if (!revoked) {
    host_->log().error(prefixed(fmt::format("{}: {}", body_->lostText(), error.what())));
  }
  outcome_.error = revoked ? "driver token revoked mid-job" : "driver lost the server mid-job";
  kill();
  outcome_.exitCode = body_->abandon();
}

void Worker::retry(Clock::time_point begin, const std::function<Duration()>& deadline,
                   const std::function<void(std::optional<Duration> cap)>& call) {
  Duration delay = host_->timings().retryFirst;
  for (;;) {
    try {
      return call(attemptCap(begin));
    } catch (const ServerError& error) {
      if (!isWorthRetrying(error) || Clock::now() - begin >= deadline()) throw;
      host_->log().warn(fmt::format("server unreachable, retrying: {}", forLog(error.what())));
    }
    // A stop cuts the pause short, once: what is left to say is said at once.
    if (host_->stopping().isSet()) {
      std::this_thread::sleep_for(delay);
    } else {
      host_->stopping().waitFor(delay);
    }
    delay = std::min(2 * delay, host_->timings().retryLongest);
  }
}

Worker::Duration Worker::postDeadline() const {
  const Timings& timings = host_->timings();
  return host_->stopping().isSet() ? timings.postDeadlineStopping : timings.postDeadline;
}

/// How long an attempt may wait for its answer: while stopping, what is left of the deadline.
std::optional<Worker::Duration> Worker::attemptCap(Clock::time_point begin) const {
  if (!host_->stopping().isSet()) return std::nullopt;
  const Timings& timings = host_->timings();
  return std::max(timings.postDeadlineStopping - (Clock::now() - begin),
                  timings.minAttemptStopping);
}

ByteBuffer Worker::post(LineBatch batch) {
  const auto body = std::make_shared<ByteBuffer>(std::move(batch).finish());
  auto begin = Clock::now();
  postBody(body, begin);
  return std::move(*body);
}

void Worker::postBody(const std::shared_ptr<const ByteBuffer>& body, Clock::time_point& begin) {
  BodyLimit& limit = host_->bodyLimit();
  const bool fits = body->size() <= limit.bytes();
  if (fits && postWhole(body, begin, true)) return;
  auto pieces = LineBatch::split(body->view(), limit.bytes(), body_->mayCutLines());
  if (pieces.size() < 2) {
    // A refusal is an outage like any other: the limit may be older than what it was learnt from,
    // and none that is meant is as low as the lines that are never cut.
    postWhole(body, begin, false);
    return;
  }
  for (auto& piece : pieces) {
    postBody(std::make_shared<const ByteBuffer>(std::move(piece).finish()), begin);
  }
}

bool Worker::postWhole(const std::shared_ptr<const ByteBuffer>& body, Clock::time_point& begin,
                       bool canBeSmaller) {
  LinesReply reply;
  try {
    retry(
        begin, [this] { return postDeadline(); },
        [&](auto cap) {
          try {
            reply = LinesReply::from(host_->api().lines(job_.id, body, cap));
          } catch (const ServerError& error) {
            if (canBeSmaller && isForItsSize(error, body->size())) throw BodyRefused();
            throw;
          }
        });
  } catch (const BodyRefused&) {
    host_->bodyLimit().refused(body->size());
    return false;
  }
  host_->bodyLimit().passed(body->size());
  // Many pieces may take longer than the deadline on a slow way. A stop has one for all of them.
  if (!host_->stopping().isSet()) begin = Clock::now();
  hear(reply);
  return true;
}

/// Does what the service's answer to a lines post asks for.
void Worker::hear(const LinesReply& reply) {
  if (reply.ok || reply.cancel) {
    refusals_ = 0;
  } else if (++refusals_ >= kRefusalsUntilLost) {
    host_->log().warn(prefixed(
        fmt::format("no longer ours (state={}); killing it", reply.state.value_or("None"))));
    throw LeaseLost();
  }
  if (reply.cancel && !isCancelled()) {
    host_->log().warn(prefixed(body_->cancelText()));
    cancelledByService_ = true;
    kill();
  }
  if (host_->stopping().isSet() && !isCancelled()) kill();
}

/// Makes this the outcome of the job.
void Worker::fail(const std::exception& failure) {
  outcome_.exitCode = kDriverFailed;
  if (outcome_.error.value_or("").empty()) {
    outcome_.error = "driver error: " + pyTypeName(failure);
  }
}

void Worker::reportFailure(const std::exception& failure) {
  host_->log().error(prefixed(pyDescribe(failure)));
  fail(failure);
  try {
    complete();
  } catch (const std::exception&) {
    // The failure itself has been logged; that the service could not be told adds nothing.
  }
}

/// Posts the completion record. One that is too large is sent once more with less of its error.
void Worker::complete() {
  const auto send = [this](const std::optional<std::string>& error) {
    retry(
        Clock::now(), [this] { return postDeadline(); },
        [&](auto cap) {
          try {
            host_->api().complete(job_.id, outcome_.exitCode.value_or(0), error, cap);
          } catch (const ServerError& failure) {
            const bool isShort = !error || countCharacters(*error) <= kMaxErrorCharacters;
            if (!isShort && failure.cause() == ServerError::Cause::bodyTooLarge) {
              throw BodyRefused();
            }
            throw;
          }
        });
  };
  try {
    send(outcome_.error);
  } catch (const BodyRefused&) {
    send(firstCharacters(*outcome_.error, kMaxErrorCharacters));
  }
}

void Worker::completeAndReport() {
  if (host_->stopping().isSet()) closeSpaceOnBadEnd();
  try {
    complete();
    reportFinished();
  } catch (const ServerError& error) {
    host_->log().error(prefixed(fmt::format("could not report completion: {}", error.what())));
    if (error.kind() == ServerError::Kind::auth) host_->tokenWasRevoked();
  }
}

void Worker::reportFinished() {
  const auto& [exitCode, error] = outcome_;
  const std::string text =
      prefixed(fmt::format("finished with exit {}{}", exitCode ? std::to_string(*exitCode) : "None",
                           isCancelled() ? " (cancelled)" : ""));
  if (exitCode == 0 && error.value_or("").empty()) {
    host_->log().success(text);
  } else {
    host_->log().warn(text);
  }
}

void Worker::closeSpaceOnBadEnd() {
  if (!job_.taskSpace || spaceClosed_ || !body_->ownsSpace()) return;
  const bool bad = outcome_.exitCode.value_or(0) != 0 || isCancelled() ||
                   !outcome_.error.value_or("").empty() || host_->stopping().isSet();
  if (!bad) return;
  spaceClosed_ = true;
  host_->browser().closeSpace(*job_.taskSpace);
}

void Worker::cleanUp() {
  body_->cleanUp();
  closeSpaceOnBadEnd();
  if (job_.taskSpace) host_->touchSpace(*job_.taskSpace);
  host_->workerDone(*this);
  tornDown_.set();  // last, so that no run ends before its jobs' ends are told
}

void Worker::terminate() {
  cancelled_ = true;
  body_->terminate();
}

void Worker::kill() {
  terminate();
  const TerminationTimings& timings = host_->timings().termination;
  for (int step = 0; step < timings.steps; ++step) {
    if (!body_->hasProcess()) return;
    std::this_thread::sleep_for(timings.step);
  }
  body_->killNow();
}

void Worker::killNow() {
  cancelled_ = true;
  body_->killNow();
}

std::string Worker::prefixed(const std::string& text) const {
  return fmt::format("job {}: {}", job_.id, forLog(text));
}

}  // namespace verdo
