#include "VerdoDriverCore/Run/JobTraces.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Executor.h"
#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Process/GroupRecord.h"
#include "VerdoDriverCore/Run/Preparation.h"
#include "VerdoDriverCore/Run/SpaceClaim.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

namespace verdo {
namespace {

constexpr const char* kRuntimeDir = "XDG_RUNTIME_DIR";

/// Where a variable of the environment says, if it is an absolute path.
std::string directoryFrom(const char* variable, std::string otherwise) {
  const char* const directory = std::getenv(variable);
  return directory && *directory == '/' ? directory : std::move(otherwise);
}

/// verdo-browser holds the lock as long as it runs.
bool isBrowserRunning(const std::string& directory) {
  const UniqueFd lock(
      ::open((directory + "/keeper.lock").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  return lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0;
}

/// It gives the lock back a moment after it has said that it ends.
void waitForEnd(const std::string& directory) {
  constexpr std::chrono::milliseconds kLook{20};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (isBrowserRunning(directory) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kLook);
  }
}

}  // namespace

JobTraces::Options JobTraces::ofTheUser(const std::vector<std::string>& extraPathDirs) {
  const std::string state = DriverConstants::expandTilde("~/.local/state");
  return {
      .cache = StagingDirectory::defaultCache(),
      .runtimeDir = directoryFrom(kRuntimeDir, ""),
      .stateDir = directoryFrom("XDG_STATE_HOME", state),
      .browser = Executor::locate(DriverConstants::fallbackExecutor, extraPathDirs).value_or("")};
}

std::vector<std::string> JobTraces::remove() const {
  std::vector<std::string> left;
  const auto note = [&](const std::string& what) {
    if (!what.empty()) left.push_back(what);
  };
  const std::string holder = SpaceClaim::holderIn(options_.cache);
  if (!holder.empty()) {
    note(fmt::format("the browser's task spaces (another driver, {}, uses them)", holder));
  } else {
    // In the cache it keeps its profiles where a session has no directory of its own.
    note(removeBrowserData(options_.cache + "/browser", ""));
    if (!options_.runtimeDir.empty()) {
      note(removeBrowserData(options_.runtimeDir + "/verdo-browser", options_.runtimeDir));
    }
    note(
        removeBrowserData(options_.stateDir + "/verdo-browser", ""));  // logins: nothing runs there
  }
  GroupRecord::endAbandoned(options_.cache);  // they use the staged files
  note(removeStagedFiles());
  if (left.empty()) {
    std::error_code ignored;  // empty, or not ours alone
    SpaceClaim::forgetIn(options_.cache);
    std::filesystem::remove(options_.cache + "/.lock", ignored);
    std::filesystem::remove(options_.cache, ignored);
  }
  return left;
}

/// Gives why the data stays; empty when it is gone.
std::string JobTraces::removeBrowserData(const std::string& directory,
                                         const std::string& runtimeDir) const {
  std::error_code error;
  if (!std::filesystem::is_directory(std::filesystem::symlink_status(directory, error))) return "";
  if (isBrowserRunning(directory) && !options_.browser.empty()) {
    auto environment = executorEnvironment(options_.browser, {});
    environment.erase(kRuntimeDir);
    if (!runtimeDir.empty()) environment[kRuntimeDir] = runtimeDir;
    Browser({options_.browser, {"verdo-browser", "stop"}, std::move(environment)},
            options_.stopLimit, nullptr)
        .run("");
    waitForEnd(directory);
  }
  if (isBrowserRunning(directory)) {
    return fmt::format("the browser's task spaces (verdo-browser still runs, in {})", directory);
  }
  std::filesystem::remove_all(directory, error);
  return error ? fmt::format("the browser's profiles ({}: {})", directory, error.message()) : "";
}

std::string JobTraces::removeStagedFiles() const {
  StagingDirectory::removeAbandoned(options_.cache);
  const bool isGone = !StagingDirectory::hasAny(options_.cache);
  return isGone ? "" : fmt::format("files of jobs (in use, or protected, in {})", options_.cache);
}

}  // namespace verdo
