#pragma once

#include "VerdoDriverCore/Jobs/Job.h"
#include "VerdoDriverCore/Jobs/JobHost.h"
#include "VerdoDriverCore/Network/LineBatch.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// The exit status of a job that was never run: a shell's for a command that is not there.
inline constexpr std::int32_t kNotRun = 127;

/// How a job ended, as the service will hear it.
struct JobOutcome {
  std::optional<std::int32_t> exitCode;  ///< absent: none, and nothing failed; reported as 0
  std::optional<std::string> error;
};

/// What the body of a job may ask of the worker that runs it. On the worker's thread only, but for
/// isCancelled().
class JobReporter {
 public:
  virtual ~JobReporter() = default;

  virtual const Job& job() const = 0;
  /// The serve loop that leased the job. Who may outlive the job shares it.
  virtual const std::shared_ptr<JobHost>& host() const = 0;
  /// The text for the log: behind "job {id}: ", and with what it quotes made harmless.
  virtual std::string prefixed(const std::string& text) const = 0;

  /// Posts lines to the service, an empty batch as a heartbeat, and hears its answer: when that
  /// asks for it, or the driver stops, the body has been told to end before this returns. Bridges
  /// outages. Gives the batch's memory back for the next one. Throws ServerError when the service
  /// is lost or the token revoked, LeaseLost when the job is no longer ours; the body lets both
  /// pass.
  virtual ByteBuffer post(LineBatch batch) = 0;

  /// The job has been told to end, by whomever. Any thread.
  virtual bool isCancelled() const = 0;
  /// It was the service that asked for it.
  virtual bool isCancelledByService() const = 0;
};

/// The service has given the job to somebody else, or nobody: nothing more is posted for it.
class LeaseLost : public Error {
 public:
  LeaseLost() : Error("no longer ours") {}
  std::string pyName() const override { return "LeaseLost"; }
};

/// What a job does: the half of a worker that differs from one kind of job to the next. A new kind
/// is one more implementation and one line in makeJobBody(). Lives as long as its worker, whose
/// thread calls run() and abandon(); what ends it may be called from any thread, at any time.
class JobBody {
 public:
  virtual ~JobBody() = default;

  /// The job takes one of the driver's lanes.
  virtual bool takesLane() const = 0;
  /// A bad end of the job closes its task space.
  virtual bool ownsSpace() const = 0;
  /// A line that is too long for the way to the service may be delivered in pieces.
  virtual bool mayCutLines() const = 0;
  /// What the log says, behind "job {id}: ", when the service asks to cancel the job.
  virtual const char* cancelText() const = 0;
  /// The same when the service is lost; the reason follows.
  virtual const char* lostText() const = 0;

  /// Does the work. Blocks until it is done, or has been ended by one of the operations below.
  virtual JobOutcome run() = 0;
  /// After run() has thrown: ends what is still at work and gives the exit code to report. Blocks
  /// as long as that takes, some seconds at most.
  virtual std::int32_t abandon() = 0;

  /// Gives back what the job has kept so far, its staged files. The last call of the worker.
  virtual void cleanUp() {}

  /// Asks the work to end; what is not begun yet does not begin. Returns at once.
  virtual void terminate() = 0;
  /// Processes of the job may still be at work.
  virtual bool hasProcess() = 0;
  /// Ends them, whatever they do. Returns at once.
  virtual void killNow() = 0;
};

/// The body for a job of its kind. Takes the payload out of the job. `reporter` outlives it.
std::unique_ptr<JobBody> makeJobBody(Job& job, JobReporter& reporter);

}  // namespace verdo
