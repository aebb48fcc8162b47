#pragma once

#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <cstdint>
#include <functional>
#include <string>

namespace verdo {

/// Of the drivers on this computer that serve one user of one server (the app and a terminal, say)
/// a single one may look after the task spaces: the others would close those that its jobs use. It
/// is the one that holds the lock on a file; the lock goes with its process, and another driver
/// then takes over. Any thread may call any operation.
class SpaceClaim {
 public:
  /// `directory` is made if need be. `onHolder` is told which other driver holds the claim, once
  /// for each, and nothing ("") when it is ours after that.
  SpaceClaim(std::string directory, const std::string& server, std::int64_t userId,
             std::function<void(const std::string& holder)> onHolder);
  ~SpaceClaim();

  /// True when this driver holds the claim, now or since before; also where files cannot be
  /// locked, since nothing is known of others there.
  bool take() EXCLUDES(lock_);

  /// Who holds a claim of any user and server in the directory; empty when nobody does.
  static std::string holderIn(const std::string& directory);
  /// Removes the files of claims that nobody holds.
  static void forgetIn(const std::string& directory);

 private:
  std::string holderUnlessOurs() REQUIRES(lock_);

  const std::string directory_;
  const std::string path_;
  const std::function<void(const std::string&)> onHolder_;
  Mutex lock_;
  UniqueFd file_ GUARDED_BY(lock_);
  std::string lastHolder_ GUARDED_BY(lock_);
};

}  // namespace verdo
