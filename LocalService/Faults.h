#pragma once

#include "LocalService/Fault.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstdint>
#include <optional>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

namespace verdo::local {

/// The faults in force. Every member may be called from any thread.
class Faults {
 public:
  explicit Faults(std::uint64_t seed) : random_(seed) {}

  /// Gives an identifier. Throws std::invalid_argument that says which field is wrong.
  std::uint64_t add(Fault fault);
  /// The fault that hits this request, with its identifier; counts the hit.
  std::optional<std::pair<std::uint64_t, Fault>> pick(std::string_view endpoint,
                                                      std::optional<std::int64_t> jobId,
                                                      std::size_t bodySize);
  std::vector<FaultStatus> list() const;       ///< those not cleared
  std::uint64_t hits(std::uint64_t id) const;  ///< requests hit; 0 for an unknown fault
  bool clear(std::uint64_t id);                ///< its hits stay known
  void clearAll();

 private:
  struct Entry {
    std::uint64_t id = 0;
    Fault fault;
    std::uint64_t seen = 0;
    std::uint64_t hits = 0;
    bool cleared = false;
  };

  mutable Mutex mutex_;
  std::vector<Entry> entries_ GUARDED_BY(mutex_);
  std::uint64_t nextId_ GUARDED_BY(mutex_) = 1;
  std::mt19937_64 random_ GUARDED_BY(mutex_);
};

}  // namespace verdo::local
