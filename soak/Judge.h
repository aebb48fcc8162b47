#pragma once

#include "LocalService/LocalService.h"
#include "soak/Evidence.h"
#include "soak/Plan.h"

#include <cstdint>
#include <string>
#include <vector>

namespace verdo::soak {

/// What became of the jobs of a road, counted. A plain value.
struct Tally {
  // What there was.
  std::uint64_t browserJobs = 0;
  std::uint64_t llmJobs = 0;
  std::uint64_t cancelled = 0;
  std::uint64_t failed = 0;        ///< their files or the provider were out of reach
  std::uint64_t taken = 0;         ///< by the service, whose lease had run out with cause
  std::uint64_t offeredAgain = 0;  ///< before an acknowledgement
  std::uint64_t lines = 0;         ///< that the service has taken
  std::uint64_t sentAgain = 0;     ///< of them, since a reply was lost

  // What there must not be.
  std::uint64_t lost = 0;
  std::uint64_t doubled = 0;
  std::uint64_t disordered = 0;
  std::uint64_t foreign = 0;  ///< lines that no plan holds, or damaged
  std::uint64_t wrongEnd = 0;
  std::uint64_t unfinished = 0;
  std::uint64_t runTwice = 0;
  std::uint64_t leaseLost = 0;  ///< without cause
  std::uint64_t unasked = 0;    ///< started though the service never leased them

  std::vector<std::string> findings;  ///< of those, in words
};

/// A job as it was given to the service.
struct GivenJob {
  JobPlan plan;
  std::int64_t id = 0;
};

/// Holds what the service has of a job against its plan. `runs`: how often the executor began it.
void judge(const GivenJob& job, const local::Jobs& jobs, const Evidence& evidence, int runs,
           Tally& tally);

}  // namespace verdo::soak
