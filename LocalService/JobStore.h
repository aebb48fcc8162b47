#pragma once

#include "LocalService/JobTypes.h"
#include "LocalService/LaneQueue.h"
#include "LocalService/LineLog.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace verdo::local {

/// The queue of jobs and their leases: one job is leased at most once at a time, one lane holds at
/// most one leased job, and a lease that is not renewed in time puts its job back. Every member may
/// be called from any thread.
class JobStore {
 public:
  using Clock = std::chrono::steady_clock;

  /// A job as it is handed out.
  struct Handout {
    std::int64_t id = 0;
    std::uint64_t lease = 0;  ///< number of this lease, for putBack
    std::string body;         ///< {"job": …}
  };

  struct LinesAnswer {
    bool ok = false;
    bool cancel = false;
    const char* state = "unknown";  ///< running, queued, done or unknown
  };

  /// A poll in waiting. While it exists, its descriptor becomes readable when there may be a job
  /// for it; it then tries lease(), and waits on after clear() when another one was faster.
  class Waiter {
   public:
    Waiter(JobStore& store, std::set<std::string> busyLanes);
    ~Waiter();
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    int fd() const { return poll_.event.fd(); }
    void clear();

   private:
    JobStore& store_;
    LaneQueue::Poll poll_;
  };

  explicit JobStore(std::chrono::milliseconds lease);
  ~JobStore();
  JobStore(const JobStore&) = delete;
  JobStore& operator=(const JobStore&) = delete;

  std::int64_t reserveId();
  /// Queues a job under a reserved identifier. `object` is the job as the driver sees it.
  void add(std::int64_t id, const JobSpec& spec, const nlohmann::ordered_json& object);

  /// The oldest job whose lane is neither busy nor leased.
  std::optional<Handout> lease(const std::set<std::string>& busyLanes);
  /// The handout did not reach its driver: the job is as if it had never been leased. Harmless
  /// when the lease is over.
  void putBack(const Handout& handout);
  /// Renews the lease and takes the lines, if the job is leased.
  LinesAnswer lines(std::int64_t id, const LinesBatch& batch, std::uint64_t request);
  /// Takes the completion record, if the job is leased.
  LinesAnswer complete(std::int64_t id, std::int64_t exitCode, std::optional<std::string> error);
  bool cancel(std::int64_t id);

  std::optional<JobSnapshot> job(std::int64_t id) const;
  std::vector<JobSnapshot> jobs() const;
  std::shared_ptr<const LineLog> lineLog(std::int64_t id) const;  ///< null: no such job
  /// Waits until `done` gives true; it is called with no lock held, at first and after changes.
  bool waitUntil(const std::function<bool()>& done, Clock::time_point deadline) const;
  bool allDone() const;

  void setLease(std::chrono::milliseconds lease);
  void clear();      ///< forgets all jobs; identifiers go on
  void interrupt();  ///< waits of waitUntil end now
  void resume();

 private:
  struct Record {
    JobSnapshot snapshot;  // without the line totals
    std::string body;
    std::shared_ptr<LineLog> lines;
    std::uint64_t lease = 0;
    Clock::time_point leasedUntil;
  };

  void enqueue(Record& record) REQUIRES(mutex_);
  void release(Record& record) REQUIRES(mutex_);  // the lane of a leased job is free again
  void changed() REQUIRES(mutex_);
  void endOverdueLeases(Clock::time_point now) REQUIRES(mutex_);
  static void finish(Record& record);
  static LinesAnswer answerFor(const Record& record);
  static JobSnapshot snapshotOf(const Record& record);

  void watchLeases();

  mutable Mutex mutex_;
  mutable Condition changed_;
  Condition leasesChanged_;
  std::chrono::milliseconds leaseTime_ GUARDED_BY(mutex_);
  std::int64_t nextId_ GUARDED_BY(mutex_) = 1;
  std::uint64_t version_ GUARDED_BY(mutex_) = 0;  // of all that snapshots tell
  std::map<std::int64_t, Record> jobs_ GUARDED_BY(mutex_);
  std::set<std::int64_t> leased_ GUARDED_BY(mutex_);
  LaneQueue lanes_ GUARDED_BY(mutex_);
  Clock::time_point nextExpiry_ GUARDED_BY(mutex_) = Clock::time_point::max();
  bool interrupted_ GUARDED_BY(mutex_) = false;
  bool ending_ GUARDED_BY(mutex_) = false;
  std::thread leaseWatch_;
};

}  // namespace verdo::local
