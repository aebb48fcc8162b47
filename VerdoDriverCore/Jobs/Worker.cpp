#include "VerdoDriverCore/Jobs/Worker.h"

#include "VerdoDriverCore/Network/Errors.h"
#include "VerdoDriverCore/System/ThreadName.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>
#include <signal.h>

namespace verdo {
namespace {

constexpr std::int32_t kDriverFailed = 127;

bool isWorthRetrying(const ServerError& error) { return error.kind() == ServerError::Kind::server; }

}  // namespace

Worker::Worker(std::shared_ptr<JobHost> host, Job job)
    : host_(std::move(host)), job_(std::move(job)) {}

Worker::~Worker() = default;

void Worker::start() {
  std::thread([self = shared_from_this()] {
    setThreadName(fmt::format("job-{}", self->job_.id));
    self->run();
  }).detach();
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
  } catch (const std::exception& failure) {
    reportFailure(failure);
  }
  cleanUp();
}

void Worker::runInner() {
  if (!acknowledge()) return;
  if (job_.kind == "llm") {
    runLLM();
  } else {
    runBrowser();
  }
}

/// Tells the service that the job has arrived. False when the job is not to be run.
bool Worker::acknowledge() {
  LinesReply reply;
  try {
    const auto body = std::make_shared<const ByteBuffer>(LineBatch().finish());
    // Short on purpose: a job that cannot be acknowledged is soon offered to somebody else.
    retry([this] { return host_->timings().acknowledgeDeadline; },
          [&] { reply = LinesReply::from(host_->api().lines(job_.id, body)); });
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

void Worker::retry(const std::function<Duration()>& deadline, const std::function<void()>& call) {
  const auto begin = Clock::now();
  Duration delay = host_->timings().retryFirst;
  for (;;) {
    try {
      return call();
    } catch (const ServerError& error) {
      if (!isWorthRetrying(error) || Clock::now() - begin >= deadline()) throw;
      host_->log().warn(fmt::format("server unreachable, retrying: {}", error.what()));
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

LinesReply Worker::postLines(LineBatch batch) {
  LinesReply reply;
  const auto body = std::make_shared<ByteBuffer>(std::move(batch).finish());
  retry([this] { return postDeadline(); },
        [&] { reply = LinesReply::from(host_->api().lines(job_.id, body)); });
  pending_.recycle(std::move(*body));
  return reply;
}

void Worker::reportFailure(const std::exception& failure) {
  host_->log().error(prefixed(pyDescribe(failure)));
  if (err_.value_or("").empty()) err_ = "driver error: " + pyTypeName(failure);
  try {
    retry([this] { return postDeadline(); },
          [this] { host_->api().complete(job_.id, kDriverFailed, err_); });
  } catch (const std::exception&) {
    // The failure itself has been logged; that the service could not be told adds nothing.
  }
}

void Worker::completeAndReport() {
  if (host_->stopping().isSet()) closeSpaceOnBadEnd();
  try {
    retry([this] { return postDeadline(); },
          [this] { host_->api().complete(job_.id, exitCode_.value_or(0), err_); });
    reportFinished();
  } catch (const ServerError& error) {
    host_->log().error(prefixed(fmt::format("could not report completion: {}", error.what())));
    if (error.kind() == ServerError::Kind::auth) host_->tokenWasRevoked();
  }
}

void Worker::reportFinished() {
  const std::string text = prefixed(fmt::format("finished with exit {}{}",
                                                exitCode_ ? std::to_string(*exitCode_) : "None",
                                                isCancelled() ? " (cancelled)" : ""));
  if (exitCode_ == 0 && err_.value_or("").empty()) {
    host_->log().success(text);
  } else {
    host_->log().warn(text);
  }
}

void Worker::closeSpaceOnBadEnd() {
  if (!job_.taskSpace || spaceClosed_) return;
  const bool bad = exitCode_.value_or(0) != 0 || isCancelled() || !err_.value_or("").empty() ||
                   host_->stopping().isSet();
  // Jobs of these kinds manage spaces themselves or use none.
  if (!bad || job_.kind == "close" || job_.kind == "list" || job_.kind == "llm") return;
  spaceClosed_ = true;
  host_->browser().closeSpace(*job_.taskSpace);
}

void Worker::cleanUp() {
  files_.reset();
  closeSpaceOnBadEnd();
  touchSpace();
  host_->workerDone(*this);
  tornDown_.set();  // last, so that no run ends before its jobs' ends are told
}

void Worker::kill() {
  if (const auto proc = cancelAndGetProcess()) proc->terminateGroup(host_->timings().termination);
}

void Worker::killNow() {
  if (const auto proc = cancelAndGetProcess()) proc->signalGroup(SIGKILL);
}

/// Marks the job as cancelled, ends its provider call, and gives its child, if it has one.
std::shared_ptr<ChildProcess> Worker::cancelAndGetProcess() {
  std::shared_ptr<ChatClient> client;
  std::shared_ptr<ChildProcess> proc;
  {
    MutexLock lock(stateLock_);
    cancelled_ = true;
    client = llmClient_;
    proc = proc_;
  }
  if (client) client->cancel();
  return proc;
}

bool Worker::isCancelled() const {
  MutexLock lock(stateLock_);
  return cancelled_;
}

std::string Worker::prefixed(const std::string& text) const {
  return fmt::format("job {}: {}", job_.id, text);
}

}  // namespace verdo
