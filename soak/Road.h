#pragma once

#include "LocalService/LocalService.h"
#include "soak/Evidence.h"
#include "soak/Judge.h"
#include "soak/Plan.h"
#include "soak/Weather.h"
#include "tests/Support/Certificates.h"
#include "tests/Support/Front.h"
#include "tests/Support/Program.h"
#include "tests/Support/TempDir.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace verdo::soak {

struct RoadOptions {
  std::string name;
  Way way = Way::direct;
  int jobs = 0;
  std::uint64_t seed = 0;
  bool brief = false;
  Milliseconds lease{60'000};
  double storm = 1;
  int lanes = 96;
  std::chrono::seconds patience{
      0};  ///< after which jobs that are not done count as never completed
};

/// What an idle driver uses.
struct Footprint {
  std::size_t memory = 0;  ///< anonymous, bytes
  int threads = 0;
  int sockets = 0;
  int otherDescriptors = 0;
};

/// What a road gave. A plain value.
struct RoadReport {
  std::string name;
  Tally tally;
  WeatherCounts weather;
  std::uint64_t requests = 0;
  std::uint64_t faultedRequests = 0;
  Footprint atQuarter;
  Footprint atEnd;
  int processesLeft = 0;
  int filesLeft = 0;
  int spacesLeft = 0;
  int wrongExits = 0;  ///< of the driver
  double seconds = 0;
  std::string log;  ///< the driver's
};

/// A service, a driver, and what lies between: all jobs of a plan from the first to the last.
class Road {
 public:
  explicit Road(const RoadOptions& options);
  /// Takes until the last job is done, or the patience is over. Throws std::exception when there is
  /// no driver to be had.
  RoadReport run();

 private:
  Environment environment() const;
  std::vector<std::string> arguments() const;
  void failToStart();
  void start();
  /// Gives the service jobs up to this number, and returns when all are done or patience is over.
  void serve(int until);
  void give();
  void tellProgress(Clock::time_point now);
  void lookAtOpenJobs(Clock::time_point now);
  /// True when the driver has no thread of a job's and no child.
  bool isIdle() const;
  Footprint footprint();
  Footprint look() const;
  void end();
  void countLeftovers();
  std::map<int, int> runsByNumber() const;
  void finding(int& count, const std::string& text);

  const RoadOptions options_;
  test::TempDir home_;   // the driver's
  test::TempDir state_;  // the executor's
  std::optional<test::Certificates> certificates_;
  local::LocalService service_;
  std::unique_ptr<test::Front> front_;
  Evidence evidence_;
  Random random_;
  Weather weather_;
  std::unique_ptr<test::Program> driver_;
  std::vector<GivenJob> given_;
  std::set<std::size_t> open_;  // indices of given_
  Clock::time_point deadline_;
  Clock::time_point nextTold_;
  RoadReport report_;
};

}  // namespace verdo::soak
