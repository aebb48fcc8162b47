#include "VerdoDriverCore/Jobs/Browser.h"

#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/PyValue.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>

namespace verdo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* LIST_JS =
    "const spaces = await listTaskSpaces()\n"
    "cliLog('__SPACES__' + JSON.stringify(spaces || []))\n";
constexpr std::string_view kSpacesMarker = "__SPACES__";

// The exit statuses of a shell for a command that timed out and one that could not be started.
constexpr std::int32_t kTimedOut = 124;
constexpr std::int32_t kNotStarted = 127;

/// More than any answer needs: what a script prints beyond it is dropped.
constexpr std::size_t kMostOutput = 16u << 20;

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

  const Event& outputEnded() const { return out_.done(); }

  bool waitUntil(Clock::time_point deadline) {
    return out_.done().waitFor(deadline - Clock::now()) &&
           err_.done().waitFor(deadline - Clock::now());
  }

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
      bytes_ += line.size();
      if (bytes_ > kMostOutput) return;
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

/// The child's status, absent when it still ran at the deadline. A child's output ends moments
/// before the child does, as a rule: until then looking is left to the reader, from then on looks
/// come quickly first.
std::optional<std::int32_t> waitForExit(ChildProcess& child, const Event& outputEnded,
                                        Clock::time_point deadline, Clock::duration longestLook) {
  Clock::duration look = std::chrono::milliseconds(1);
  for (;;) {
    if (const auto status = child.poll()) return status;
    if (Clock::now() >= deadline) return std::nullopt;
    if (outputEnded.isSet()) {
      std::this_thread::sleep_for(look);
      look = std::min(2 * look, longestLook);
    } else {
      outputEnded.waitFor(longestLook);
    }
  }
}

}  // namespace

Browser::Browser(ExecutorCommand command, Duration timeout, std::shared_ptr<LogSink> log,
                 Timings timings)
    : command_(std::move(command)), timeout_(timeout), log_(std::move(log)), timings_(timings) {}

Browser::Result Browser::run(const std::string& script) try {
  const auto child = Spawn::launch(command_.path, command_.argv, command_.env, false);
  Collector collector(*child);
  collector.start(*child, script);
  const auto deadline = Clock::now() + timeout_;
  const auto exit = waitForExit(*child, collector.outputEnded(), deadline, timings_.browserLook);
  if (!exit || !collector.waitUntil(deadline)) {
    child->terminateGroup(timings_.termination);
    child->release();
    return {kTimedOut, collector.lines()};
  }
  child->release();
  return {*exit, collector.lines()};
} catch (const Spawn::Error& error) {
  return {kNotStarted, {error.what()}};
} catch (const std::system_error& error) {
  // No room for another pipe or thread.
  return {kNotStarted, {error.what()}};
}

std::shared_ptr<Mutex> Browser::lockOf(const std::string& space) {
  MutexLock lock(locksGuard_);
  auto& entry = locks_[space];
  if (!entry) entry = std::make_shared<Mutex>();
  return entry;
}

bool Browser::closeSpace(const std::string& space) {
  Result result;
  {
    // Held while the script runs: two closes of one space must not overlap.
    const auto spaceLock = lockOf(space);
    MutexLock lock(*spaceLock);
    result = run(closeScript(space));
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

std::vector<JV> Browser::listSpaces() try {
  std::vector<JV> spaces;
  for (const auto& line : run(LIST_JS).lines) {
    const auto marker = line.find(kSpacesMarker);
    if (marker == std::string::npos) continue;
    const JV answer = parseJson(std::string_view(line).substr(marker + kSpacesMarker.size()));
    if (const auto* list = answer.asArray()) {
      std::copy_if(list->begin(), list->end(), std::back_inserter(spaces),
                   [](const JV& entry) { return entry.asObject() != nullptr; });
    }
    break;
  }
  return spaces;
} catch (const PyError&) {
  // An executor without spaces to tell of is as good as one that cannot tell.
  return {};
}

std::vector<std::string> Browser::spaceNames() {
  std::vector<std::string> names;
  for (const JV& space : listSpaces()) {
    if (auto name = pyStrIfTruthy(space.find("name"))) names.push_back(std::move(*name));
  }
  return names;
}

}  // namespace verdo
