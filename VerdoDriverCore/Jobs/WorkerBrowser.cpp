#include "VerdoDriverCore/Jobs/FileStager.h"
#include "VerdoDriverCore/Jobs/Worker.h"
#include "VerdoDriverCore/Network/Errors.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>
#include <signal.h>

namespace verdo {
namespace {

constexpr auto kDownloadTimeout = std::chrono::seconds(120);
constexpr std::int32_t kNotRun = 127;

}  // namespace

void Worker::runBrowser() {
  auto script = stageFiles();
  if (!script) return failUnrun("file staging failed");

  const ExecutorCommand& command = host_->browser().command();
  host_->log().info(fmt::format("job {} [{}{}]: starting `{}` ({} bytes of JS)", job_.id, job_.kind,
                                job_.taskSpace ? " " + *job_.taskSpace : "",
                                fmt::join(command.argv, " "), script->size()));
  std::shared_ptr<ChildProcess> child;
  try {
    child = Spawn::launch(command.path, command.argv, command.env, true);
  } catch (const Spawn::Error& error) {
    host_->log().error(prefixed(fmt::format("cannot start executor: {}", error.what())));
    return failUnrun(fmt::format("executor failed to start: {}", error.what()));
  }
  bool killedBefore = false;
  {
    MutexLock lock(stateLock_);
    proc_ = child;
    killedBefore = cancelled_;
  }
  if (killedBefore) child->terminateGroup(host_->timings().termination);
  touchSpace();

  LineReader reader(child->takeStdout(), [this](std::span<const std::string_view> lines) {
    pending_.add(lines);
    touchSpace();
  });
  reader.feed(child->takeStdin(), std::move(*script));
  reader.start();
  try {
    reportWhileRunning(*child, reader);
  } catch (...) {
    // Whatever went wrong, the child goes first; a reader waiting for room must not wait on.
    kill();
    pending_.close();
    child->release();
    throw;
  }
  exitCode_ = child->wait();
  child->release();
  completeAndReport();
}

/// The script with its files in place; absent when they could not be had.
std::optional<std::string> Worker::stageFiles() {
  if (job_.files.empty()) return std::move(job_.payload);
  try {
    files_ = std::make_unique<StagingDirectory>();
    const auto download = [this](const std::string& url, const std::string& destination) {
      if (isCancelled()) throw PyError("Cancelled", "the job was stopped");
      return host_->api().download(url, destination, kDownloadTimeout);
    };
    return FileStager::stage(job_, std::move(job_.payload), download, host_->log(), files_->path());
  } catch (const std::exception& error) {
    // The message may hold a path or a URL of the user's: the type says enough to the log.
    host_->log().error(prefixed("file staging failed: " + pyTypeName(error)));
    return std::nullopt;
  }
}

/// Ends a job whose child never existed.
void Worker::failUnrun(const std::string& error) {
  exitCode_ = kNotRun;
  err_ = error;
  completeAndReport();
}

/// The reporting cycle: returns once the child has exited and all its output has been posted, or
/// the service was lost.
void Worker::reportWhileRunning(ChildProcess& child, LineReader& reader) {
  const Timings& timings = host_->timings();
  std::optional<Clock::time_point> drainDeadline;
  try {
    for (;;) {
      auto wake = Clock::now() + timings.reportCycle;
      if (drainDeadline) wake = std::min(wake, *drainDeadline);
      pending_.waitUntilFull(wake);
      const LinesReply reply = postLines(pending_.take());

      if (reply.cancel && !isCancelled()) {
        host_->log().warn(prefixed("cancel requested — killing the browser process"));
        kill();
      }
      if (host_->stopping().isSet() && !isCancelled()) kill();

      if (!child.poll()) continue;
      if (reader.done().isSet()) break;
      if (!isCancelled()) continue;
      // Killed, yet someone still holds the output: first those who left with the group's leader
      // unheard, then whoever moved to a group of its own.
      if (!drainDeadline) {
        drainDeadline = Clock::now() + timings.drainAfterKill;
        child.signalGroup(SIGTERM);
      } else if (Clock::now() >= *drainDeadline) {
        child.signalGroup(SIGKILL);
        reader.abandon();
      }
    }
    if (LineBatch rest = pending_.take(); !rest.empty()) postLines(std::move(rest));
  } catch (const ServerError& error) {
    const bool revoked = error.kind() == ServerError::Kind::auth;
    if (!revoked) {
      host_->log().error(
          prefixed(fmt::format("lost the server, killing the job: {}", error.what())));
    }
    err_ = revoked ? "driver token revoked mid-job" : "driver lost the server mid-job";
    kill();
    pending_.close();
    exitCode_ = child.wait();
    if (revoked) throw;
  }
}

void Worker::touchSpace() {
  if (job_.taskSpace) host_->touchSpace(*job_.taskSpace);
}

}  // namespace verdo
