#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Process/GroupRecord.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/JV.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace verdo {

/// How the browser executor is started.
struct ExecutorCommand {
  std::string path;               ///< the located program
  std::vector<std::string> argv;  ///< the command's words, program name first
  Environment env;
};

/// What the caller of a script does while it waits.
struct ScriptWait {
  /// Ends the script as soon as it is set, as a time-out would; null: nothing does.
  const Event* interrupt = nullptr;
  /// At every look, Timings::childPoll apart; null: nothing.
  std::function<void()> onLook = {};  // NOLINT(readability-redundant-member-init): may be left out

  bool isInterrupted() const { return interrupt && interrupt->isSet(); }
};

/// Runs short scripts of the driver's own in the browser: listing and closing task spaces. Any
/// thread may call any operation; closes of one space are serialised.
class Browser {
 public:
  using Duration = std::chrono::steady_clock::duration;

  struct Result {
    std::int32_t exit = 0;           ///< the child's status; 124 timed out, 127 not started
    std::vector<std::string> lines;  ///< standard output, one empty line, standard error
  };

  /// `timeout` limits one script. `groups`, if any, has every process group that is started here.
  Browser(ExecutorCommand command, Duration timeout, std::shared_ptr<LogSink> log,
          Timings timings = {}, std::shared_ptr<GroupRecord> groups = nullptr);

  const ExecutorCommand& command() const { return command_; }

  /// Starts the executor for a job's script. Throws Spawn::Error.
  std::unique_ptr<ChildProcess> start(bool mergeStderr);
  /// The driver lives (GroupRecord::confirm).
  void confirmGroups();
  /// Runs one script to its end, or to its time-out. Never throws for what the script does.
  Result run(const std::string& script, const ScriptWait& wait = {}) EXCLUDES(lock_);
  /// Closes a task space and logs how that went. True when the executor said it worked. `isTaken`
  /// is asked right before, with the space's lock held: when it says so, nothing is done.
  bool closeSpace(
      const std::string& space, const std::function<bool()>& isTaken = [] { return false; },
      const ScriptWait& wait = {}) EXCLUDES(lock_);
  /// Blocks while the space is being closed.
  void waitForClose(const std::string& space) EXCLUDES(lock_);
  /// What came of asking for the task spaces that the browser knows.
  struct SpaceList {
    Result script;                          ///< how the script ended
    std::optional<std::vector<JV>> spaces;  ///< each an object; absent: no answer could be read
  };
  SpaceList askForSpaces(const ScriptWait& wait = {});
  /// The names of those spaces, as far as they could be read, without the ones that have none.
  std::vector<std::string> spaceNames(const ScriptWait& wait = {});

  /// The driver stops: from now on each script, those at work included, has
  /// Timings::scriptStopping, with the grace in which it is ended.
  void beginStopping() EXCLUDES(lock_);
  /// A script has given no answer in that time.
  bool hasHungStopping() EXCLUDES(lock_);
  /// SIGKILL to the scripts at work, for a caller that is about to exit.
  void killNow() EXCLUDES(lock_);

 private:
  using Clock = std::chrono::steady_clock;
  class RunningScript;

  Clock::time_point deadlineOf(Clock::time_point begin) EXCLUDES(lock_);
  /// Looks at `isDone` until it says so; false when the script's time is up before.
  bool await(const std::function<bool(Duration look)>& isDone, Clock::time_point begin,
             const ScriptWait& wait);
  Duration graceStopping() const;
  TerminationTimings grace() EXCLUDES(lock_);
  std::shared_ptr<Mutex> lockOf(const std::string& space) EXCLUDES(lock_);

  const ExecutorCommand command_;
  const Duration timeout_;
  const std::shared_ptr<LogSink> log_;
  const Timings timings_;
  const std::shared_ptr<GroupRecord> groups_;
  Mutex lock_;
  std::map<std::string, std::weak_ptr<Mutex>> spaceLocks_ GUARDED_BY(lock_);
  std::set<ChildProcess*> running_ GUARDED_BY(lock_);
  std::optional<Clock::time_point> stoppingSince_ GUARDED_BY(lock_);
  bool hasHungStopping_ GUARDED_BY(lock_) = false;
};

}  // namespace verdo
