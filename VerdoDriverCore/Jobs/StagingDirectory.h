#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <chrono>
#include <string>

namespace verdo {

/// A private directory for one job's input files, removed with everything in it at the end of its
/// life. While it lives its owner holds a lock on it, by which directories of crashed runs are
/// told from those in use.
class StagingDirectory {
 public:
  /// Longer than another driver's look around takes, and short beside the lease of a job.
  static constexpr std::chrono::seconds kPatience{5};

  /// Makes "{cache}/verdo-XXXXXX" (mode 0700) and the cache directory, which only the user may
  /// enter. Throws PyError "OSError", also when another process keeps the cache locked for longer
  /// than `patience`.
  explicit StagingDirectory(const std::string& cache = defaultCache(),
                            std::chrono::milliseconds patience = kPatience);
  ~StagingDirectory();
  StagingDirectory(const StagingDirectory&) = delete;
  StagingDirectory& operator=(const StagingDirectory&) = delete;

  const std::string& path() const { return path_; }

  /// "~/.cache/verdo" of the user.
  static std::string defaultCache();
  /// Removes the directories in the cache whose owners are gone. Never throws, nor waits for
  /// another process: what cannot be removed now is left to the next start.
  static void removeAbandoned(const std::string& cache = defaultCache());
  /// There is one in the cache, whosever it is.
  static bool hasAny(const std::string& cache);

 private:
  std::string path_;
  UniqueFd lock_;
};

}  // namespace verdo
