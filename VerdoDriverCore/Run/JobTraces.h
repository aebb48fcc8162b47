#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace verdo {

/// What the user's jobs have left on this computer: the profiles, logins and task spaces of
/// verdo-browser, and files that were downloaded for jobs. A browser of the user's own is none of
/// it. Any thread; one call at a time.
class JobTraces {
 public:
  struct Options {
    std::string cache;       ///< where jobs' files are staged and drivers lock each other out
    std::string runtimeDir;  ///< the session's own directory; empty without one
    std::string stateDir;    ///< where programs keep what outlives them
    std::string browser;     ///< the program verdo-browser; empty where it is not installed
    std::chrono::seconds stopLimit{20};  ///< for the browser to end
  };
  /// `extraPathDirs` are searched for the browser before PATH.
  static Options ofTheUser(const std::vector<std::string>& extraPathDirs);

  explicit JobTraces(Options options) : options_(std::move(options)) {}

  /// Ends verdo-browser and removes all that can be removed; blocks until then. Gives what stays,
  /// each with its reason, in words for the user. What another driver uses stays.
  std::vector<std::string> remove() const;

 private:
  std::string removeBrowserData(const std::string& directory, const std::string& runtimeDir) const;
  std::string removeStagedFiles() const;

  const Options options_;
};

}  // namespace verdo
