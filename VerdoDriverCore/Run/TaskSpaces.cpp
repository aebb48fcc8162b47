#include "VerdoDriverCore/Run/TaskSpaces.h"

#include "VerdoDriverCore/System/ThreadName.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <system_error>
#include <thread>

#include <fmt/format.h>

namespace verdo {

TaskSpaces::TaskSpaces(Options options, std::shared_ptr<Browser> browser,
                       std::shared_ptr<LogSink> log, std::unique_ptr<SpaceClaim> claim,
                       std::function<bool(const std::string&)> isUsed)
    : options_(std::move(options)),
      browser_(std::move(browser)),
      log_(std::move(log)),
      claim_(std::move(claim)),
      isUsed_(std::move(isUsed)) {}

void TaskSpaces::touch(const std::string& name) {
  MutexLock lock(lock_);
  lastUse_.insert_or_assign(name, Clock::now());
}

bool TaskSpaces::hasClaim() { return !claim_ || claim_->take(); }

bool TaskSpaces::close(const std::string& name, const ScriptWait& wait) {
  return browser_->closeSpace(name, [&] { return isUsed_(name); }, wait);
}

void TaskSpaces::sweepAtStart(Sweep sweep, const std::function<void()>& onLook) {
  if (!hasClaim()) return;
  const ScriptWait wait{&interrupted_, onLook};
  std::vector<std::string> closed;
  for (const auto& name : browser_->spaceNames(wait)) {
    if (interrupted_.isSet()) break;
    if (isUsed_(name) || (sweep == Sweep::own && !isOurs(name))) continue;
    if (close(name, wait)) closed.push_back(name);
  }
  reportSweep(closed);
}

void TaskSpaces::sweepAtEnd() {
  // An executor that hangs has cost the stop time enough: what it leaves open, the next start
  // closes.
  if (browser_->hasHungStopping() || !hasClaim()) return;
  const auto deadline = Clock::now() + options_.timings.sweepStopping;
  std::vector<std::string> closed;
  for (const auto& name : browser_->spaceNames()) {
    if (isUsed_(name) || !isOurs(name)) continue;
    if (browser_->hasHungStopping() || Clock::now() >= deadline) break;
    if (close(name, {})) closed.push_back(name);
  }
  reportSweep(closed);
}

void TaskSpaces::reportSweep(const std::vector<std::string>& closed) {
  if (closed.empty()) return;
  log_->info(fmt::format("closed {} leftover task space(s): {}", closed.size(),
                         forLog(fmt::format("{}", fmt::join(closed, ", ")))));
}

void TaskSpaces::startReaper() try {
  static_cast<void>(hasClaim());  // from the first job on
  std::thread([self = shared_from_this()] {
    setThreadName("reaper");
    while (!self->interrupted_.waitFor(self->options_.reapInterval)) self->reapIdle();
    self->reaperEnded_.set();
  }).detach();
} catch (const std::system_error& error) {
  reaperEnded_.set();
  log_->warn(
      fmt::format("no thread for the idle reaper ({}): idle task spaces stay open", error.what()));
}

void TaskSpaces::reapIdle() {
  if (!hasClaim()) return;
  const auto existing = browser_->spaceNames({&interrupted_});
  if (interrupted_.isSet()) return;
  forgetOthers(existing);
  std::vector<std::string> closed;
  for (const auto& name : existing) {
    if (interrupted_.isSet()) break;
    if (isUsed_(name) || !isOurs(name) || !isIdle(name)) continue;
    if (close(name, {&interrupted_})) closed.push_back(name);
    // One that would not close gets its idle time anew, instead of another try at every look.
    MutexLock lock(lock_);
    lastUse_.erase(name);
  }
  if (!closed.empty()) {
    log_->info(fmt::format("idle reaper closed {} space(s): {}", closed.size(),
                           forLog(fmt::format("{}", fmt::join(closed, ", ")))));
  }
}

/// A space seen for the first time begins its idle time now.
bool TaskSpaces::isIdle(const std::string& name) {
  MutexLock lock(lock_);
  const auto now = Clock::now();
  return now - lastUse_.try_emplace(name, now).first->second > options_.idleClose;
}

/// Spaces come and go by the thousand: only those that exist, or that a job uses, are remembered.
void TaskSpaces::forgetOthers(const std::vector<std::string>& existing) {
  const std::set<std::string> kept(existing.begin(), existing.end());
  MutexLock lock(lock_);
  const auto now = Clock::now();
  std::erase_if(lastUse_, [&](const auto& entry) {
    // A job may have touched its space before the executor makes it.
    return !kept.contains(entry.first) && now - entry.second > options_.idleClose;
  });
}

}  // namespace verdo
