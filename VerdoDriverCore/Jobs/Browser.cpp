#include "VerdoDriverCore/Jobs/Browser.h"

#include "VerdoDriverCore/Jobs/TaskSpaceList.h"
#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <signal.h>

namespace verdo {
namespace {

// The exit statuses of a shell for a command that timed out and one that could not be started.
constexpr std::int32_t kTimedOut = 124;
constexpr std::int32_t kNotStarted = 127;

/// More than any answer needs, bytes: what a script prints beyond it is dropped.
constexpr std::size_t kMaxOutput = 16u << 20;

std::string closeScript(const std::string& space) {
  return "await completeTaskSpace(" + PyJSON::text(space) +
         ", { keep: false })\ncliLog('closed')\n";
}

/// The two outputs of a child, collected by two readers.
class Collector {
 public:
  explicit Collector(ChildProcess& child)
      : out_(child.takeStdout(), [this](auto lines) { add(outLines_, lines); }),
        err_(child.takeStderr(), [this](auto lines) { add(errLines_, lines); }) {}

  void start(ChildProcess& child, const std::string& script) {
    out_.feed(child.takeStdin(), script);
    out_.start();
    err_.start();
  }

  /// Throws std::system_error when the script did not get to the child.
  void checkFeed() const {
    if (const int error = out_.feedError()) {
      throw std::system_error(error, std::generic_category(), "cannot give it its script");
    }
  }
  const Event& outputEnded() const { return out_.done(); }
  const Event& errorsEnded() const { return err_.done(); }

  std::vector<std::string> lines() EXCLUDES(lock_) {
    MutexLock lock(lock_);
    std::vector<std::string> all = outLines_;
    all.emplace_back();
    all.insert(all.end(), errLines_.begin(), errLines_.end());
    return all;
  }

 private:
  void add(std::vector<std::string>& list, std::span<const std::string_view> lines)
      EXCLUDES(lock_) {
    MutexLock lock(lock_);
    for (const auto line : lines) {
      bytes_ += sizeof(std::string) + line.size();  // an empty line costs memory, too
      if (bytes_ > kMaxOutput) return;
      list.push_back(repairUtf8(line));
    }
  }

  Mutex lock_;
  std::size_t bytes_ GUARDED_BY(lock_) = 0;
  std::vector<std::string> outLines_;  // guarded by lock_ too, but handed to add() by reference
  std::vector<std::string> errLines_;
  // Last, so that the threads end before what they write to.
  LineReader out_;
  LineReader err_;
};

}  // namespace

Browser::Browser(ExecutorCommand command, Duration timeout, std::shared_ptr<LogSink> log,
                 Timings timings, std::shared_ptr<GroupRecord> groups)
    : command_(std::move(command)),
      timeout_(timeout),
      log_(std::move(log)),
      timings_(timings),
      groups_(std::move(groups)) {}

std::unique_ptr<ChildProcess> Browser::start(bool mergeStderr) {
  auto child = Spawn::launch(command_.path, command_.argv, command_.env, mergeStderr);
  if (groups_) {
    groups_->add(child->pid());
    child->onReleased([groups = groups_, group = child->pid()] { groups->remove(group); });
  }
  return child;
}

void Browser::confirmGroups() {
  if (groups_) groups_->confirm();
}

/// Lets killNow() find a script while it runs.
class Browser::RunningScript {
 public:
  RunningScript(Browser& browser, ChildProcess& child) : browser_(browser), child_(child) {
    MutexLock lock(browser_.lock_);
    browser_.running_.insert(&child_);
  }
  ~RunningScript() {
    MutexLock lock(browser_.lock_);
    browser_.running_.erase(&child_);
  }
  RunningScript(const RunningScript&) = delete;
  RunningScript& operator=(const RunningScript&) = delete;

 private:
  Browser& browser_;
  ChildProcess& child_;
};

Browser::Result Browser::run(const std::string& script, const ScriptWait& wait) try {
  const auto begin = Clock::now();
  const auto child = start(false);
  const RunningScript running(*this, *child);
  Collector collector(*child);
  collector.start(*child, script);

  // A child's output ends moments before the child does, as a rule: until then looking is left to
  // the reader, from then on looks come quickly first.
  Duration nap = std::chrono::milliseconds(1);
  const auto hasExited = [&](Duration look) {
    if (child->poll()) return true;
    collector.checkFeed();
    if (!collector.outputEnded().isSet()) {
      collector.outputEnded().waitFor(look);
    } else {
      std::this_thread::sleep_for(std::min(nap, look));
      nap *= 2;
    }
    return false;
  };
  const auto isRead = [&](Duration look) {
    return collector.outputEnded().waitFor(look) && collector.errorsEnded().waitFor(look);
  };
  if (await(hasExited, begin, wait) && await(isRead, begin, wait)) {
    const std::int32_t exit = child->wait();
    child->release();
    return {exit, collector.lines()};
  }
  if (!wait.isInterrupted()) {
    MutexLock lock(lock_);
    hasHungStopping_ = hasHungStopping_ || stoppingSince_.has_value();
  }
  child->terminateGroup(grace());
  child->release();
  return {kTimedOut, collector.lines()};
} catch (const Spawn::Error& error) {
  return {kNotStarted, {error.what()}};
} catch (const std::system_error& error) {
  // No room for another pipe or thread, or for what shall go through the pipe.
  return {kNotStarted, {error.what()}};
}

bool Browser::await(const std::function<bool(Duration look)>& isDone, Clock::time_point begin,
                    const ScriptWait& wait) {
  for (;;) {
    const auto left = deadlineOf(begin) - Clock::now();
    if (isDone(std::clamp(left, Duration::zero(), timings_.childPoll))) return true;
    if (left <= Duration::zero() || wait.isInterrupted()) return false;
    if (wait.onLook) wait.onLook();
  }
}

Browser::Clock::time_point Browser::deadlineOf(Clock::time_point begin) {
  MutexLock lock(lock_);
  const auto usual = begin + timeout_;
  if (!stoppingSince_) return usual;
  return std::min(usual,
                  std::max(begin, *stoppingSince_) + timings_.scriptStopping - graceStopping());
}

/// What a script's time while stopping leaves for ending it.
Browser::Duration Browser::graceStopping() const { return timings_.scriptStopping / 5; }

/// How a script whose time is up is ended: in haste, once the driver stops.
TerminationTimings Browser::grace() {
  MutexLock lock(lock_);
  TerminationTimings timings = timings_.termination;
  if (!stoppingSince_ || timings.step <= Duration::zero()) return timings;
  // One step less than there is time for: SIGKILL takes a moment, too.
  const auto steps = static_cast<int>(graceStopping() / timings.step) - 1;
  timings.steps = std::clamp(steps, 0, timings.steps);
  return timings;
}

void Browser::beginStopping() {
  MutexLock lock(lock_);
  if (!stoppingSince_) stoppingSince_ = Clock::now();
}

bool Browser::hasHungStopping() {
  MutexLock lock(lock_);
  return hasHungStopping_;
}

void Browser::killNow() {
  MutexLock lock(lock_);
  for (ChildProcess* child : running_) child->signalGroup(SIGKILL);
}

std::shared_ptr<Mutex> Browser::lockOf(const std::string& space) {
  MutexLock lock(lock_);
  std::erase_if(spaceLocks_, [](const auto& entry) { return entry.second.expired(); });
  auto& entry = spaceLocks_[space];
  auto spaceLock = entry.lock();
  if (!spaceLock) entry = spaceLock = std::make_shared<Mutex>();
  return spaceLock;
}

bool Browser::closeSpace(const std::string& space, const std::function<bool()>& isTaken,
                         const ScriptWait& wait) {
  Result result;
  {
    // Held while the script runs: two closes of one space must not overlap, and who takes the
    // space after the question waits for the close (waitForClose).
    const auto spaceLock = lockOf(space);
    MutexLock lock(*spaceLock);
    if (isTaken()) return false;
    result = run(closeScript(space), wait);
  }
  const std::string text =
      fmt::format("space {}: close -> exit {}", PyJSON::pyRepr(space), result.exit);
  if (result.exit == 0) {
    log_->info(text);
  } else {
    log_->warn(text);
  }
  return result.exit == 0;
}

void Browser::waitForClose(const std::string& space) {
  const auto spaceLock = lockOf(space);
  MutexLock lock(*spaceLock);
}

Browser::SpaceList Browser::askForSpaces(const ScriptWait& wait) {
  Result script = run(TaskSpaceList::kScript, wait);
  auto spaces = TaskSpaceList::read(script.lines);
  return {std::move(script), std::move(spaces)};
}

std::vector<std::string> Browser::spaceNames(const ScriptWait& wait) {
  // An executor without spaces to tell of is as good as one that cannot tell.
  return TaskSpaceList::names(askForSpaces(wait).spaces.value_or(std::vector<JV>{}));
}

}  // namespace verdo
