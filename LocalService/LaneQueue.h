#pragma once

#include "LocalService/EventFd.h"

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace verdo::local {

/// Which job is next: a lane holds at most one leased job, the oldest first job of all free lanes
/// goes before the others, and polls in waiting are told when there may be one for them. It keeps
/// no lock of its own: its owner calls it under one.
class LaneQueue {
 public:
  /// A poll in waiting. Its event is up when there may be a job for it.
  struct Poll {
    std::set<std::string> busyLanes;  ///< of which it takes no job
    EventFd event;
    bool notified = false;  ///< the event is up, or is about to be looked at
  };

  void enqueue(std::int64_t job, const std::string& lane);
  /// A job that is queued leaves without having been leased.
  void remove(std::int64_t job, const std::string& lane);
  /// The next job of a lane that is neither busy nor leased; the lane is leased from then on.
  std::optional<std::int64_t> take(const std::set<std::string>& busyLanes);
  /// The lane of a leased job is free again.
  void release(const std::string& lane);
  bool empty() const { return lanes_.empty(); }  ///< nothing is queued and nothing leased
  void clear();

  void add(Poll& poll);  ///< `poll` outlives its place here
  void remove(Poll& poll);

 private:
  struct Lane {
    std::set<std::int64_t> queued;
    bool leased = false;
    std::int64_t readyAs = 0;  // key in ready_; 0: not there
  };

  void update(const std::string& name, Lane& lane);
  void wakePolls();

  std::map<std::string, Lane> lanes_;          // those with queued or leased jobs
  std::map<std::int64_t, std::string> ready_;  // first queued job of each free lane
  std::list<Poll*> polls_;                     // in order of arrival
};

}  // namespace verdo::local
