#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Run/SpaceClaim.h"
#include "VerdoDriverCore/Run/SpacePattern.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace verdo {

/// Looks after the browser's task spaces, which outlive the jobs that use them: closes what
/// nobody has used for long, and what was left over. Spaces that `isUsed` names are never touched,
/// and none while another driver looks after them. Any thread may call any operation.
class TaskSpaces : public std::enable_shared_from_this<TaskSpaces> {
 public:
  using Duration = std::chrono::steady_clock::duration;
  enum class Sweep {
    own,         ///< the spaces that the pattern names
    everything,  ///< all that the browser has
  };

  struct Options {
    Duration idleClose{};     ///< a space idle for longer is closed
    Duration reapInterval{};  ///< between two looks for idle spaces
    SpacePattern pattern;     ///< names the spaces that are ours
    Timings timings;
  };

  /// `isUsed` tells whether a running job uses a space; it must not block.
  TaskSpaces(Options options, std::shared_ptr<Browser> browser, std::shared_ptr<LogSink> log,
             std::unique_ptr<SpaceClaim> claim, std::function<bool(const std::string&)> isUsed);

  /// A job uses the space just now.
  void touch(const std::string& name) EXCLUDES(lock_);

  /// Closes leftover spaces before serving. interrupt() ends it. `onLook` is called all the time
  /// meanwhile.
  void sweepAtStart(Sweep sweep, const std::function<void()>& onLook = {});
  /// Closes our leftover spaces once the jobs have ended: within Timings::sweepStopping, and not
  /// beyond the first script that gives no answer.
  void sweepAtEnd();

  /// Starts the thread "reaper", which closes idle spaces until interrupt(). Without a thread to
  /// be had the spaces stay open, which is logged.
  void startReaper();
  /// Ends the scripts of the reaper and the first sweep; no other space is touched by them. Does
  /// not wait.
  void interrupt() { interrupted_.set(); }
  /// Blocks until the reaper has ended, for `timeout` at most. After interrupt().
  void waitForReaper(Duration timeout) { reaperEnded_.waitFor(timeout); }
  /// One look of the reaper.
  void reapIdle() EXCLUDES(lock_);

 private:
  using Clock = std::chrono::steady_clock;

  bool isOurs(const std::string& name) const { return options_.pattern.isFoundIn(name); }
  bool hasClaim();
  bool isIdle(const std::string& name) EXCLUDES(lock_);
  bool close(const std::string& name, const ScriptWait& wait);
  void reportSweep(const std::vector<std::string>& closed);
  void forgetOthers(const std::vector<std::string>& existing) EXCLUDES(lock_);

  const Options options_;
  const std::shared_ptr<Browser> browser_;
  const std::shared_ptr<LogSink> log_;
  const std::unique_ptr<SpaceClaim> claim_;
  const std::function<bool(const std::string&)> isUsed_;

  Event interrupted_;
  Event reaperEnded_;

  Mutex lock_;
  std::map<std::string, Clock::time_point> lastUse_ GUARDED_BY(lock_);
};

}  // namespace verdo
