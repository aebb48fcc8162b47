#pragma once

#include "LocalService/Handles.h"
#include "LocalService/JobTypes.h"
#include "LocalService/LineLog.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
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
    int fd() const { return event_.fd(); }
    void clear();

   private:
    friend class JobStore;
    JobStore& store_;
    const std::set<std::string> busy_;
    EventFd event_;
    bool notified_ = false;  // guarded by the store's mutex
    std::list<Waiter*>::iterator place_;
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
  LinesAnswer lines(std::int64_t id, const LinesBatch& batch);
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
  struct Lane {
    std::set<std::int64_t> queued;
    bool leased = false;
    std::int64_t readyAs = 0;  // key in ready_; 0: not there
  };

  // All called with the lock held.
  void enqueue(Record& record);
  void release(Record& record);  // the lane of a leased job is free again
  void finish(Record& record);
  void updateLane(const std::string& name, Lane& lane);
  void wakeWaiters();
  void changed();
  static LinesAnswer answerFor(const Record& record);

  JobSnapshot snapshotOf(const Record& record) const;
  void watchLeases();

  mutable std::mutex mutex_;  // guards all below
  mutable std::condition_variable changed_;
  std::condition_variable leasesChanged_;
  std::chrono::milliseconds leaseTime_;
  std::int64_t nextId_ = 1;
  std::uint64_t version_ = 0;
  std::map<std::int64_t, Record> jobs_;
  std::set<std::int64_t> leased_;
  std::map<std::string, Lane> lanes_;          // those with queued or leased jobs
  std::map<std::int64_t, std::string> ready_;  // first queued job of each free lane
  std::list<Waiter*> waiters_;                 // in order of arrival
  Clock::time_point nextExpiry_ = Clock::time_point::max();
  bool interrupted_ = false;
  bool ending_ = false;
  std::thread leaseWatch_;
};

}  // namespace verdo::local
