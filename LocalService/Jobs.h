#pragma once

#include "LocalService/FileStore.h"
#include "LocalService/JobStore.h"
#include "LocalService/JobTypes.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace verdo::local {

/// The jobs as the one who queues them sees them. Every member may be called from any thread.
///
/// Waits return as soon as what they wait for has happened. They give false when the time-out
/// passed first, the service stopped, or the job is unknown.
class Jobs {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Both stores outlive this. `baseUrl` is asked for files that are announced with it.
  Jobs(JobStore& store, FileStore& files, std::function<std::string()> baseUrl);

  /// Queues a job and gives its identifier: 1, 2, …
  std::int64_t add(JobSpec spec = {});
  std::optional<JobSnapshot> find(std::int64_t id) const;  ///< absent: no such job
  std::vector<JobSnapshot> list() const;
  /// Lines `from`, `from` + 1, … as far as stored, at most `limit`.
  std::vector<std::string> lines(std::int64_t id, std::size_t from = 0,
                                 std::size_t limit = SIZE_MAX) const;
  /// The posts that brought those lines, and heartbeats.
  std::vector<LinesPost> posts(std::int64_t id) const;
  /// Leased: its driver's next lines post is answered with cancel. Queued: done at once.
  /// Gives false when there is no such job or it is done.
  bool cancel(std::int64_t id);
  /// Lease time of leases made or renewed from now on.
  void setLease(Milliseconds lease);

  /// The job is in `state` or comes into it; `leased` is true of a job that is done already, too.
  bool waitFor(std::int64_t id, JobState state, Milliseconds timeout) const;
  /// `predicate` holds for the job; it is asked once at first and after every change, on the
  /// calling thread with no lock held.
  bool waitFor(std::int64_t id, const std::function<bool(const JobSnapshot&)>& predicate,
               Milliseconds timeout) const;
  /// A stored line contains `text`.
  bool waitForLine(std::int64_t id, const std::string& text, Milliseconds timeout) const;
  /// Every job is done.
  bool waitForAllDone(Milliseconds timeout) const;

 private:
  JobStore& store_;
  FileStore& files_;
  const std::function<std::string()> baseUrl_;
};

}  // namespace verdo::local
