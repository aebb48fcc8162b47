#pragma once

#include "LocalService/RequestRecord.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace verdo::local {

struct RequestLogLimits {
  std::size_t entries = 20'000;             ///< kept; older ones go
  std::size_t bodyBytes = 1 << 20;          ///< kept of one body
  std::size_t totalBodyBytes = 256u << 20;  ///< kept of all bodies; the oldest bodies go first
};

/// What was asked of the service. Every member may be called from any thread.
///
/// An endpoint is one of those of Fault::endpoint, or "" for all. Requests to /control/ are not
/// logged. Requests that an outage or a stop cut off count as left by their client.
class RequestLog {
 public:
  using Milliseconds = std::chrono::milliseconds;

  explicit RequestLog(RequestLogLimits limits = {}) : limits_(limits) {}

  /// Logs an arrival; fills in `sequence` and cuts `body` (whose full length the caller has put in
  /// `bodySize`). Gives the sequence.
  std::uint64_t arrived(RequestRecord record, std::string_view body);
  void faultApplied(std::uint64_t sequence, std::uint64_t fault);
  void replied(std::uint64_t sequence, int status);  ///< 0: ended without a reply
  void hungUp(std::uint64_t sequence);

  std::vector<RequestRecord> list(std::string_view endpoint = "") const;  ///< as far as kept
  std::uint64_t count(const std::string& endpoint = "") const;
  /// The n-th request (1, 2, …) on the endpoint, as soon as it has arrived; absent when it did not
  /// come in time or is no longer kept.
  std::optional<RequestRecord> waitFor(const std::string& endpoint, std::uint64_t n,
                                       Milliseconds timeout) const;
  /// The same, once that request is over: answered, ended by a fault, or left by its client.
  std::optional<RequestRecord> waitForReply(const std::string& endpoint, std::uint64_t n,
                                            Milliseconds timeout) const;
  /// At least `n` requests on the endpoint were left by their client before they were answered
  /// (a long poll that was cancelled).
  bool waitForHangUps(const std::string& endpoint, std::uint64_t n, Milliseconds timeout) const;

  /// Requests that have arrived and are neither answered nor left by their client.
  std::uint64_t inFlight(const std::string& endpoint = "") const;
  std::uint64_t maxInFlight(const std::string& endpoint = "") const;  ///< the most at once

  void clear();      ///< all counts begin at 0; requests in flight are forgotten
  void interrupt();  ///< waits end now with what there is
  void resume();     ///< waits wait again

 private:
  struct Endpoint {
    std::uint64_t arrived = 0;
    std::uint64_t hungUp = 0;
    std::uint64_t inFlight = 0;
    std::uint64_t maxInFlight = 0;
    std::deque<std::uint64_t> kept;  // sequences
  };
  /// Null: not kept.
  const RequestRecord* find(const std::string& endpoint, std::uint64_t n) const REQUIRES(mutex_);
  /// The same, once it is over; null: it is not, or is not kept.
  const RequestRecord* findOver(const std::string& endpoint, std::uint64_t n) const
      REQUIRES(mutex_);
  RequestRecord* kept(std::uint64_t sequence) REQUIRES(mutex_);  ///< null: no longer
  std::uint64_t arrivedOn(const std::string& endpoint) const REQUIRES(mutex_);
  std::uint64_t hungUpOn(const std::string& endpoint) const REQUIRES(mutex_);
  void leftFlight(const RequestRecord& record) REQUIRES(mutex_);
  void dropExcess() REQUIRES(mutex_);

  const RequestLogLimits limits_;
  mutable Mutex mutex_;
  mutable Condition changed_;
  std::deque<RequestRecord> records_ GUARDED_BY(mutex_);  // of consecutive sequences
  std::uint64_t nextSequence_ GUARDED_BY(mutex_) = 1;
  std::uint64_t bodiesFrom_ GUARDED_BY(mutex_) = 1;  // the oldest record that has its body
  std::size_t bodyBytes_ GUARDED_BY(mutex_) = 0;
  std::map<std::string, Endpoint> endpoints_ GUARDED_BY(mutex_);  // "": all requests
  bool interrupted_ GUARDED_BY(mutex_) = false;
};

}  // namespace verdo::local
