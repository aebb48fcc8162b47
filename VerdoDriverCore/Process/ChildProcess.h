#pragma once

#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include <sys/types.h>

namespace verdo {

/// How a process group is asked to end before it is made to.
struct TerminationTimings {
  std::chrono::milliseconds step{200};  ///< between two looks whether the child has gone
  int steps = 25;                       ///< looks before SIGKILL; 25 × 0.2 s = 5 s of grace
};

/// Undoes a "SIGCHLD ignored" that whoever started this program left behind: ended children would
/// vanish, and with them their statuses. Call it in main, before the first thread starts.
void keepEndedChildren();

/// A child process that leads its own process group. Any thread may call any operation.
///
/// An exited child stays a zombie until release(): its pid, which is also the group's id, cannot
/// be given to another process while a signal might still be sent to the group.
///
/// Statuses are the exit code (0 to 255), the negated signal number, or -1 when not known: the
/// service reads them so.
class ChildProcess {
 public:
  /// Takes over a child that was just started as leader of its own group. An end of a pipe that
  /// the child does not have is empty.
  ChildProcess(pid_t pid, UniqueFd stdinEnd, UniqueFd stdoutEnd, UniqueFd stderrEnd);
  /// Ends the group with SIGKILL and reaps the child, should release() not have been called.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  /// Called once by the release() that leaves nobody in the group; before any other thread knows
  /// the child.
  void onReleased(std::function<void()> call) { onReleased_ = std::move(call); }

  // This process's ends of the child's pipes. Taken out once, by the thread that started the child.
  UniqueFd takeStdin() { return std::move(stdinEnd_); }
  UniqueFd takeStdout() { return std::move(stdoutEnd_); }
  UniqueFd takeStderr() { return std::move(stderrEnd_); }

  /// The status if the child has exited, absent while it runs. Never blocks.
  std::optional<std::int32_t> poll() EXCLUDES(lock_);
  /// Blocks until the child has exited.
  std::int32_t wait() EXCLUDES(lock_);

  /// Sends a signal to the child and its whole group, also after the child has exited. False when
  /// there is nobody left to signal.
  bool signalGroup(int signal) EXCLUDES(lock_);
  /// SIGTERM to the group; then SIGKILL, should the child not exit within the time. Blocks no
  /// longer than `timings` say; the child may not be dead yet when SIGKILL was needed.
  void terminateGroup(const TerminationTimings& timings) EXCLUDES(lock_);
  /// SIGKILL to whoever is left in the group, then reaps the child, waiting for it if need be.
  /// Afterwards nothing can be signalled any more. Calling it again is harmless.
  void release() EXCLUDES(lock_);

 private:
  std::optional<std::int32_t> pollLocked() REQUIRES(lock_);

  const pid_t pid_;
  UniqueFd stdinEnd_;
  UniqueFd stdoutEnd_;
  UniqueFd stderrEnd_;
  std::function<void()> onReleased_;
  Mutex lock_;
  std::optional<std::int32_t> status_ GUARDED_BY(lock_);
  bool reaped_ GUARDED_BY(lock_) = false;
};

}  // namespace verdo
