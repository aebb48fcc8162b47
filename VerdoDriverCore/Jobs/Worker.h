#pragma once

#include "VerdoDriverCore/Jobs/Job.h"
#include "VerdoDriverCore/Jobs/JobBody.h"
#include "VerdoDriverCore/Jobs/JobHost.h"
#include "VerdoDriverCore/System/Sync.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// Runs one leased job on a thread of its own and owns everything that the service hears about it:
/// the acknowledgement, the output (which is heartbeat and cancel channel as well) and the
/// completion record. It bridges outages of the service for a bounded time. What the job does is
/// its body's affair.
class Worker : public JobReporter, public std::enable_shared_from_this<Worker> {
 public:
  using Duration = std::chrono::steady_clock::duration;

  Worker(std::shared_ptr<JobHost> host, Job job);
  ~Worker() override;
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Starts the thread "job-{id}", which keeps the worker alive until it has ended. Called once.
  /// Throws std::system_error when there is no room for one; the outcome says so, too.
  void start();

  // Ending the job. Any thread may call these, at any time, again and again.

  /// Asks the job to end: SIGTERM to its processes; a provider call ends at once. Never blocks.
  void terminate();
  /// terminate(), and SIGKILL to what is left after the grace. Blocks for that grace at most.
  void kill();
  /// SIGKILL to the job's processes, without waiting for anything.
  void killNow();
  /// Processes of the job may still be at work.
  bool hasProcess() { return body_->hasProcess(); }

  /// The job, but for its payload, which its body has taken.
  const Job& job() const override { return job_; }
  bool takesLane() const { return body_->takesLane(); }
  // The outcome; valid once JobHost::workerDone has been called, on the calling thread.
  const std::optional<std::int32_t>& exitCode() const { return outcome_.exitCode; }
  const std::optional<std::string>& error() const { return outcome_.error; }
  /// Set once all clean-up is done.
  const Event& tornDown() const { return tornDown_; }

  // JobReporter
  const std::shared_ptr<JobHost>& host() const override { return host_; }
  std::string prefixed(const std::string& text) const override;
  ByteBuffer post(LineBatch batch) override;
  bool isCancelled() const override { return cancelled_; }
  bool isCancelledByService() const override { return cancelledByService_; }

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  void runInner();
  bool acknowledge();
  void runBody();
  void loseServer(const ServerError& error);
  void fail(const std::exception& failure);
  void reportFailure(const std::exception& failure);
  void complete();
  void completeAndReport();
  void reportFinished();
  void closeSpaceOnBadEnd();
  void cleanUp();

  /// Posts a finished body, in pieces when it is larger than what gets through. `begin` is since
  /// when nothing has got through.
  void postBody(const std::shared_ptr<const ByteBuffer>& body, Clock::time_point& begin);
  /// False when the body was too large and must be made smaller, if it can be.
  bool postWhole(const std::shared_ptr<const ByteBuffer>& body, Clock::time_point& begin,
                 bool canBeSmaller);
  void hear(const LinesReply& reply);
  /// The retry rule: repeats `call` while it fails with a ServerError of the kind that is worth
  /// it, until `deadline()` has passed since `begin`. `call` is given the time that its attempt may
  /// take at most, if there is a limit. Rethrows everything else.
  void retry(Clock::time_point begin, const std::function<Duration()>& deadline,
             const std::function<void(std::optional<Duration> cap)>& call);
  Duration postDeadline() const;
  std::optional<Duration> attemptCap(Clock::time_point begin) const;

  const std::shared_ptr<JobHost> host_;
  Job job_;  // constant once the body has been made
  Event tornDown_;
  std::atomic<bool> cancelled_ = false;

  // The worker thread's own.
  JobOutcome outcome_;
  bool spaceClosed_ = false;
  bool cancelledByService_ = false;
  int refusals_ = 0;  ///< replies in a row that said that the job is not ours

  std::unique_ptr<JobBody> body_;  // last: it uses the rest
};

}  // namespace verdo
