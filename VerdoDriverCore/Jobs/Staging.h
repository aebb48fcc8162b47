#pragma once

#include "VerdoDriverCore/Jobs/Job.h"
#include "VerdoDriverCore/Jobs/JobHost.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/System/Sync.h"

#include <memory>
#include <string>

namespace verdo {

/// Stages a job's files on a thread of its own, so that the job's thread can go on talking to the
/// service, however long the downloads take and whatever the disk does. Used by one thread, but
/// for cancel().
class Staging {
 public:
  /// Begins. Throws PyError "OSError" when there is no place for the files, std::system_error when
  /// there is no thread for them.
  Staging(std::shared_ptr<JobHost> host, const Job& job, std::string payload);
  /// Cancels. A thread that hangs in the disk is left to itself: it owns what it uses, and removes
  /// the directory when it comes back.
  ~Staging();
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;

  /// Set once every file is there, or one could not be had.
  const Event& done() const;
  /// The payload with its files in place. Once, after done(). Throws what FileStager::stage threw.
  std::string takeScript();
  /// The directory with the files, to be kept as long as they are needed. Once, after done().
  std::unique_ptr<StagingDirectory> takeDirectory();
  /// Ends the download in flight and begins no other. Any thread.
  void cancel();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace verdo
