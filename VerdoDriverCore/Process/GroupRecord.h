#pragma once

#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/System/ProcessList.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace verdo {

/// The process groups that a driver's jobs run in, on file: should the driver crash, the next one
/// ends what is left of them. The file is locked as long as its driver lives, by which those of
/// crashed drivers are known; where files cannot be locked nothing is recorded. A process that has
/// left its group is not found again. Any thread may call any operation; none throws for a file
/// that cannot be written: a record is a courtesy, no condition for a job.
class GroupRecord {
 public:
  /// Nobody waits for what they do any more, and a driver waits for their end.
  static constexpr TerminationTimings kAbandonedGrace{std::chrono::milliseconds(100), 10};

  /// The file "groups-XXXXXX" is made in `directory` with the first group, removed with the last
  /// one, and made anew when somebody else has removed it; the directory, too, which is made the
  /// user's alone.
  explicit GroupRecord(std::string directory);
  /// Removes the file.
  ~GroupRecord();
  GroupRecord(const GroupRecord&) = delete;
  GroupRecord& operator=(const GroupRecord&) = delete;

  /// A child that leads a group has been started. Not yet waited for.
  void add(pid_t group) EXCLUDES(lock_);
  /// Nobody is left in the group.
  void remove(pid_t group) EXCLUDES(lock_);
  /// The driver lives: of a group whose leader has ended before a crash, only members that are
  /// older than the last of these calls show that the group is still the same. Cheap: writes
  /// once a second at most.
  void confirm() EXCLUDES(lock_);

  /// Ends what crashed drivers have left, as `timings` say, and removes their files. Gives the
  /// groups that were ended. Only groups of this start of the system, in which a process still
  /// lives that was there with the crashed driver, are touched: their numbers may be others' by
  /// now. What is no file of the user's own is left alone.
  static std::vector<pid_t> endAbandoned(const std::string& directory,
                                         const TerminationTimings& timings = kAbandonedGrace);

 private:
  void write() REQUIRES(lock_);
  void removeFile() REQUIRES(lock_);

  const std::string directory_;
  Mutex lock_;
  std::string path_ GUARDED_BY(lock_);  ///< of `file_`
  UniqueFd file_ GUARDED_BY(lock_);
  std::chrono::steady_clock::time_point written_ GUARDED_BY(lock_);
  std::map<pid_t, ProcessList::Time> groups_ GUARDED_BY(lock_);  ///< with the start of the leader
};

}  // namespace verdo
