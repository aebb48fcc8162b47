#include "VerdoDriverCore/Jobs/BrowserJob.h"

#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <system_error>
#include <thread>

#include <fmt/format.h>
#include <signal.h>

namespace verdo {
namespace {

/// What a child ended by SIGTERM reports: a job that was cancelled before its start says the same.
constexpr std::int32_t kTerminated = -SIGTERM;

}  // namespace

BrowserJob::BrowserJob(std::string payload, bool ownsSpace, JobReporter& reporter)
    : reporter_(reporter), payload_(std::move(payload)), ownsSpace_(ownsSpace) {}

BrowserJob::~BrowserJob() = default;

JobOutcome BrowserJob::run() {
  auto script = stageFiles();
  if (reporter_.isCancelledByService()) return {kTerminated, std::nullopt};
  if (!script) return {kNotRun, "file staging failed"};
  if (reporter_.isCancelled()) return {kTerminated, std::nullopt};
  return execute(std::move(*script));
}

std::optional<std::string> BrowserJob::stageFiles() {
  if (reporter_.job().files.empty()) return std::move(payload_);
  try {
    const auto staging =
        std::make_shared<Staging>(reporter_.host(), reporter_.job(), std::move(payload_));
    {
      MutexLock lock(lock_);
      staging_ = staging;
      if (ending_) staging->cancel();
    }
    reportWhileStaging(*staging);
    if (!staging->done().isSet()) return std::nullopt;
    files_ = staging->takeDirectory();
    return staging->takeScript();
  } catch (const ServerError&) {
    throw;
  } catch (const LeaseLost&) {
    throw;
  } catch (const std::exception& error) {
    if (!reporter_.isCancelledByService()) {
      // The message may hold a path or a URL of the user's: the type says enough to the log.
      log().error(reporter_.prefixed("file staging failed: " + pyTypeName(error)));
    }
    return std::nullopt;
  }
}

/// Keeps the lease alive while files arrive, and hears whether they are still wanted. Returns once
/// they are there, or the job was told to end; when that took long, the service was asked last.
void BrowserJob::reportWhileStaging(Staging& staging) {
  bool tookLong = false;
  while (!staging.done().waitFor(timings().reportCycle) && !reporter_.isCancelled()) {
    tookLong = true;
    reporter_.post(LineBatch());
  }
  if (!reporter_.isCancelled()) {
    if (tookLong) reporter_.post(LineBatch());
    return;
  }
  // The cancelled download ends at once, unless the disk hangs.
  staging.done().waitFor(timings().drainAfterKill);
}

JobOutcome BrowserJob::execute(std::string script) {
  const Job& job = reporter_.job();
  Browser& browser = reporter_.host()->browser();
  // Should the space be closing just now: what comes after must not be closed with it.
  if (job.taskSpace) browser.waitForClose(*job.taskSpace);
  const ExecutorCommand& command = browser.command();
  log().info(forLog(fmt::format("job {} [{}{}]: starting `{}` ({} bytes of JS)", job.id, job.kind,
                                job.taskSpace ? " " + *job.taskSpace : "",
                                fmt::join(command.argv, " "), script.size())));
  std::shared_ptr<ChildProcess> child;
  try {
    child = browser.start(true);
  } catch (const Spawn::Error& error) {
    log().error(reporter_.prefixed(fmt::format("cannot start executor: {}", error.what())));
    return {kNotRun, fmt::format("executor failed to start: {}", error.what())};
  }
  bool endRequested = false;
  {
    MutexLock lock(lock_);
    child_ = child;
    endRequested = ending_;
  }
  if (endRequested) child->terminateGroup(timings().termination);
  touchSpace();

  LineReader reader(child->takeStdout(), [this](std::span<const std::string_view> lines) {
    pending_.add(lines);
    touchSpace();
  });
  reader.feed(child->takeStdin(), std::move(script));
  reader.start();
  try {
    reportWhileRunning(*child, reader);
  } catch (...) {
    pending_.close();  // a reader that waits for room must not wait on
    throw;
  }
  const std::int32_t exit = child->wait();
  child->release();
  return {exit, std::nullopt};
}

/// The reporting cycle: returns once the child has exited and all its output has been posted.
void BrowserJob::reportWhileRunning(ChildProcess& child, LineReader& reader) {
  std::optional<Clock::time_point> drainDeadline;
  for (;;) {
    auto wake = Clock::now() + timings().reportCycle;
    if (drainDeadline) wake = std::min(wake, *drainDeadline);
    if (reporter_.isCancelled()) {
      // The child may have closed its output long before it ends.
      const bool drained = reader.done().waitFor(wake - Clock::now());
      if (drained) std::this_thread::sleep_for(timings().childPoll);
    } else {
      pending_.waitUntilFull(wake);
    }
    postPending();
    if (const int error = reader.feedError()) {
      child.signalGroup(SIGKILL);  // before it sees the end of what it has of its script
      throw std::system_error(error, std::generic_category(), "cannot give it its script");
    }

    if (!child.poll()) continue;
    if (reader.done().isSet()) break;
    if (!reporter_.isCancelled()) continue;
    // Killed, yet someone still holds the output: first those who left with the group's leader
    // unheard, then whoever moved to a group of its own.
    if (!drainDeadline) {
      drainDeadline = Clock::now() + timings().drainAfterKill;
      child.signalGroup(SIGTERM);
    } else if (Clock::now() >= *drainDeadline) {
      child.signalGroup(SIGKILL);
      reader.abandon();
    }
  }
  if (LineBatch rest = pending_.take(); !rest.empty()) {
    pending_.recycle(reporter_.post(std::move(rest)));
  }
}

void BrowserJob::postPending() {
  LineBatch batch = pending_.take();
  // Once the job is told to end, nobody waits for its heartbeat.
  if (batch.empty() && reporter_.isCancelled()) return;
  pending_.recycle(reporter_.post(std::move(batch)));
}

std::int32_t BrowserJob::abandon() {
  pending_.close();
  const auto child = process();
  if (!child) return kNotRun;
  const std::int32_t exit = child->wait();
  child->release();
  return exit;
}

void BrowserJob::terminate() {
  std::shared_ptr<ChildProcess> child;
  {
    MutexLock lock(lock_);
    ending_ = true;
    child = child_;
    if (staging_) staging_->cancel();
  }
  if (child) child->signalGroup(SIGTERM);
  pending_.wakeUp();
}

bool BrowserJob::hasProcess() {
  const auto child = process();
  return child && !child->poll();
}

void BrowserJob::killNow() {
  if (const auto child = process()) child->signalGroup(SIGKILL);
}

std::shared_ptr<ChildProcess> BrowserJob::process() {
  MutexLock lock(lock_);
  return child_;
}

void BrowserJob::touchSpace() {
  const auto& space = reporter_.job().taskSpace;
  if (space) reporter_.host()->touchSpace(*space);
}

}  // namespace verdo
