#include "VerdoDriverCore/Process/ChildProcess.h"

#include <cerrno>
#include <thread>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace verdo {
namespace {

constexpr std::int32_t kUnknownStatus = -1;

std::int32_t decode(const siginfo_t& info) {
  switch (info.si_code) {
    case CLD_EXITED:
      return info.si_status;
    case CLD_KILLED:
    case CLD_DUMPED:
      return -info.si_status;
    default:
      return kUnknownStatus;
  }
}

}  // namespace

void keepEndedChildren() { ::signal(SIGCHLD, SIG_DFL); }

ChildProcess::ChildProcess(pid_t pid, UniqueFd stdinEnd, UniqueFd stdoutEnd, UniqueFd stderrEnd)
    : pid_(pid),
      stdinEnd_(std::move(stdinEnd)),
      stdoutEnd_(std::move(stdoutEnd)),
      stderrEnd_(std::move(stderrEnd)) {}

ChildProcess::~ChildProcess() { release(); }

std::optional<std::int32_t> ChildProcess::pollLocked() {
  while (!status_) {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
      if (info.si_pid == 0) return std::nullopt;
      status_ = decode(info);
    } else if (errno != EINTR) {
      status_ = kUnknownStatus;
    }
  }
  return status_;
}

std::optional<std::int32_t> ChildProcess::poll() {
  MutexLock lock(lock_);
  return pollLocked();
}

std::int32_t ChildProcess::wait() {
  for (;;) {
    if (const auto status = poll()) return *status;
    // Blocks without the lock and without reaping, so that a kill can still reach the group.
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
  }
}

bool ChildProcess::signalGroup(int signal) {
  MutexLock lock(lock_);
  if (reaped_) return false;
  const bool reached = ::kill(-pid_, signal) == 0;
  // A child that has moved to another group is reached by its own id.
  return (::getpgid(pid_) != pid_ && ::kill(pid_, signal) == 0) || reached;
}

void ChildProcess::terminateGroup(const TerminationTimings& timings) {
  if (!signalGroup(SIGTERM)) return;
  for (int step = 0; step < timings.steps; ++step) {
    if (poll()) return;
    std::this_thread::sleep_for(timings.step);
  }
  if (!poll()) signalGroup(SIGKILL);
}

void ChildProcess::release() {
  signalGroup(SIGKILL);
  wait();
  {
    MutexLock lock(lock_);
    if (reaped_) return;
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED) != 0 && errno == EINTR) {
    }
    reaped_ = true;
  }
  if (onReleased_) onReleased_();
}

}  // namespace verdo
