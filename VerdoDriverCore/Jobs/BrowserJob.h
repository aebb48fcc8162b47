#pragma once

#include "VerdoDriverCore/Jobs/JobBody.h"
#include "VerdoDriverCore/Jobs/PendingLines.h"
#include "VerdoDriverCore/Jobs/Staging.h"
#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/System/Sync.h"

#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// Runs a job's script in the browser executor, a child process that gets the script on its
/// standard input, and posts every line that it prints.
class BrowserJob : public JobBody {
 public:
  BrowserJob(std::string payload, bool ownsSpace, JobReporter& reporter);
  ~BrowserJob() override;

  bool takesLane() const override { return true; }
  bool ownsSpace() const override { return ownsSpace_; }
  bool mayCutLines() const override { return true; }
  const char* cancelText() const override {
    return "cancel requested — killing the browser process";
  }
  const char* lostText() const override { return "lost the server, killing the job"; }

  JobOutcome run() override;
  std::int32_t abandon() override;
  void cleanUp() override { files_.reset(); }
  void terminate() override EXCLUDES(lock_);
  bool hasProcess() override EXCLUDES(lock_);
  void killNow() override EXCLUDES(lock_);

 private:
  using Clock = std::chrono::steady_clock;

  /// The script with its files in place; absent when they could not be had, or the job was told to
  /// end.
  std::optional<std::string> stageFiles() EXCLUDES(lock_);
  std::optional<std::string> stagedScript(Staging& staging);
  void reportWhileStaging(Staging& staging);
  JobOutcome execute(std::string script) EXCLUDES(lock_);
  void reportWhileRunning(ChildProcess& child, LineReader& reader);
  void postPending();
  void touchSpace();
  std::shared_ptr<ChildProcess> process() EXCLUDES(lock_);

  const Timings& timings() const { return reporter_.host()->timings(); }
  LogSink& log() const { return reporter_.host()->log(); }

  JobReporter& reporter_;
  std::string payload_;
  const bool ownsSpace_;
  PendingLines pending_;
  std::unique_ptr<StagingDirectory> files_;

  Mutex lock_;
  std::shared_ptr<Staging> staging_ GUARDED_BY(lock_);
  std::shared_ptr<ChildProcess> child_ GUARDED_BY(lock_);
  bool ending_ GUARDED_BY(lock_) = false;  ///< told to end
};

}  // namespace verdo
