#pragma once

#include "VerdoDriverCore/Jobs/Job.h"
#include "VerdoDriverCore/Jobs/JobHost.h"
#include "VerdoDriverCore/Jobs/PendingLines.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// Runs one leased job on a thread of its own and owns everything that the service hears about it:
/// the acknowledgement, the output (which is heartbeat and cancel channel as well) and the
/// completion record. It bridges outages of the service for a bounded time.
class Worker : public std::enable_shared_from_this<Worker> {
 public:
  using Duration = std::chrono::steady_clock::duration;

  Worker(std::shared_ptr<JobHost> host, Job job);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Starts the thread "job-{id}", which keeps the worker alive until it has ended. Called once.
  /// Throws std::system_error.
  void start();
  /// Stops the job: SIGTERM to its processes, SIGKILL after the grace; a provider call ends at
  /// once. Blocks for that grace at most. Any thread may call it, at any time, again and again.
  void kill() EXCLUDES(stateLock_);
  /// SIGKILL to the job's processes, without waiting for anything.
  void killNow() EXCLUDES(stateLock_);

  const Job& job() const { return job_; }
  // The outcome; valid once JobHost::workerDone has been called, on the calling thread.
  const std::optional<std::int32_t>& exitCode() const { return exitCode_; }
  const std::optional<std::string>& error() const { return err_; }
  /// Set once all clean-up is done.
  const Event& tornDown() const { return tornDown_; }

 private:
  using Clock = std::chrono::steady_clock;

  // The life of a job (Worker.cpp).
  void run();
  void runInner();
  bool acknowledge();
  void reportFailure(const std::exception& failure);
  void cleanUp();
  void completeAndReport();
  void reportFinished();
  void closeSpaceOnBadEnd();
  bool isCancelled() const EXCLUDES(stateLock_);
  std::shared_ptr<ChildProcess> cancelAndGetProcess() EXCLUDES(stateLock_);
  /// Posts a batch through the retry rule.
  LinesReply postLines(LineBatch batch);
  /// The retry rule: repeats `call` while it fails with a ServerError of the kind that is worth
  /// it, until `deadline()` has passed since the start. Rethrows everything else.
  void retry(const std::function<Duration()>& deadline, const std::function<void()>& call);
  Duration postDeadline() const;
  std::string prefixed(const std::string& text) const;

  // Browser jobs (WorkerBrowser.cpp).
  void runBrowser();
  std::optional<std::string> stageFiles();
  void failUnrun(const std::string& error);
  void reportWhileRunning(ChildProcess& child, LineReader& reader);
  void touchSpace();

  // LLM jobs (WorkerLLM.cpp).
  void runLLM();
  void failCall(const char* category, const std::string& message, const char* complaint);
  void runCall(const std::shared_ptr<ChatClient>& client, JV payload);
  void heartbeat();
  void postReply(const ChatClient::Completion& completion);

  const std::shared_ptr<JobHost> host_;
  /// Its payload is moved out by the worker thread, whose own it is; the rest stays as it is.
  Job job_;
  Event tornDown_;
  PendingLines pending_;

  // The worker thread's own.
  std::optional<std::int32_t> exitCode_;
  std::optional<std::string> err_;
  std::unique_ptr<StagingDirectory> files_;
  bool spaceClosed_ = false;
  bool cancelledByServer_ = false;  ///< LLM jobs only

  mutable Mutex stateLock_;
  bool cancelled_ GUARDED_BY(stateLock_) = false;
  std::shared_ptr<ChildProcess> proc_ GUARDED_BY(stateLock_);
  std::shared_ptr<ChatClient> llmClient_ GUARDED_BY(stateLock_);
};

}  // namespace verdo
