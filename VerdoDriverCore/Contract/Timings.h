#pragma once

#include "VerdoDriverCore/Process/ChildProcess.h"

#include <chrono>

namespace verdo {

/// Every time constant of the worker, the serve loop and process termination. The defaults are
/// the real ones; only tests give others.
struct Timings {
  using Duration = std::chrono::steady_clock::duration;

  // Reporting on a job.
  Duration reportCycle = std::chrono::seconds(3);    ///< between two lines posts of a job
  Duration retryFirst = std::chrono::seconds(1);     ///< first pause of a failed post; doubles
  Duration retryLongest = std::chrono::seconds(15);  ///< longest pause between two attempts
  Duration postDeadline = std::chrono::seconds(90);  ///< after this long a failing post is given up
  Duration postDeadlineStopping = std::chrono::seconds(10);  ///< the same once the driver stops
  Duration acknowledgeDeadline = std::chrono::seconds(5);    ///< the same for an acknowledgement
  /// While stopping an attempt waits for its answer until the deadline, but at least for so long.
  Duration minAttemptStopping = std::chrono::seconds(1);

  // Ending a job.
  TerminationTimings termination = {};
  Duration drainAfterKill = std::chrono::seconds(5);      ///< for the output of a killed job
  Duration shutdownPerWorker = std::chrono::seconds(60);  ///< wait for one worker at shutdown

  // Polling for jobs.
  Duration pollRetryFirst = std::chrono::seconds(1);     ///< first pause of a failed poll; doubles
  Duration pollRetryLongest = std::chrono::seconds(30);  ///< longest pause between two polls
  Duration aliveInterval = std::chrono::seconds(5);      ///< longest between two signs of life
  Duration laneWait = std::chrono::seconds(5);           ///< one wait for a free lane
  /// Two empty replies in a row that came within emptyPollQuick of their requests are followed by
  /// emptyPollPause, so that a server that does not hold polls is not hammered.
  Duration emptyPollQuick = std::chrono::milliseconds(200);
  Duration emptyPollPause = std::chrono::seconds(1);
  Duration throttlePause = std::chrono::seconds(1);  ///< after a reply with status 429

  // Asking the service: time-outs of inactivity.
  Duration helloTimeout = std::chrono::seconds(20);
  Duration pollMargin = std::chrono::seconds(20);  ///< beyond the wait that was asked for
  Duration postTimeout = std::chrono::seconds(45);
  Duration pingTimeout = std::chrono::seconds(5);  ///< for a connection under suspicion

  // One-shot browser scripts.
  Duration childPoll = std::chrono::milliseconds(50);  ///< between two looks at the child
  Duration scriptStopping = std::chrono::seconds(5);  ///< for a script, and its end, while stopping
  Duration sweepStopping = std::chrono::seconds(60);  ///< for all scripts of the last sweep
};

}  // namespace verdo
