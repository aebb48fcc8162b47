#pragma once

#include "LocalService/Fault.h"
#include "LocalService/RequestLog.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace verdo::soak {

using Clock = std::chrono::steady_clock;

/// A time in which everything was disturbed: an outage, a stopped driver, a dead path.
struct Disturbance {
  Clock::time_point begin;
  Clock::time_point end;
  /// What was on its way may be held up until then.
  Clock::time_point aftermath;
};

/// What was done to one road's requests: the causes that excuse what has gone wrong.
class Evidence {
 public:
  /// A fault that was added to the service under this identifier.
  void addFault(std::uint64_t id, const local::Fault& fault);
  void addDisturbance(const Disturbance& disturbance) { disturbances_.push_back(disturbance); }
  /// Reads what was asked of the service, once all is over.
  void readRequests(const local::RequestLog& log);

  /// The reply to this request, which took effect, may not have reached the driver.
  bool mayHaveLostReply(std::uint64_t request) const;
  /// Something other than the driver kept a job's posts from being answered between these times.
  bool excusesSilence(std::int64_t job, Clock::time_point from, Clock::time_point to) const;
  /// A download for the job may have failed.
  bool excusesStaging(std::int64_t job) const;
  /// The latest call to the provider for this model may have failed.
  bool excusesCall(const std::string& model) const;

  std::uint64_t faultedRequests() const { return faulted_; }
  std::uint64_t requests() const { return records_.size(); }
  const std::vector<Disturbance>& disturbances() const { return disturbances_; }

 private:
  using Record = local::RequestRecord;
  bool isDisturbed(Clock::time_point from, Clock::time_point to) const;
  bool isSpoilt(const Record& record) const;

  std::set<std::uint64_t> losing_;  // faults after which the reply is none
  std::set<std::uint64_t> slow_;    // faults with which it takes its time
  std::vector<Disturbance> disturbances_;
  std::vector<Record> records_;
  std::unordered_map<std::uint64_t, const Record*> bySequence_;
  std::map<std::int64_t, std::vector<const Record*>> posts_;  // lines and complete
  std::map<std::int64_t, std::vector<const Record*>> downloads_;
  std::map<std::string, std::vector<const Record*>> calls_;
  std::uint64_t faulted_ = 0;
};

}  // namespace verdo::soak
