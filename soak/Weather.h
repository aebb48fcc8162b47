#pragma once

#include "LocalService/LocalService.h"
#include "soak/Evidence.h"
#include "soak/Plan.h"
#include "tests/Support/Front.h"
#include "tests/Support/Program.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace verdo::soak {

/// The way from a driver to its service.
enum class Way {
  direct,  ///< HTTP/1.1
  dying,   ///< the same, whose open connections go dead now and then
  http2,   ///< through a proxy that speaks HTTP/2, and resets streams and connections
};

struct WeatherCounts {
  int outages = 0;
  int suspends = 0;
  int longSuspends = 0;  ///< longer than a lease
  int deadPaths = 0;     ///< connections
  int resets = 0;        ///< HTTP/2 streams and connections
};

/// What goes wrong on one road, and when. Used by the road's thread alone, which calls tick()
/// often.
class Weather {
 public:
  struct Options {
    Way way = Way::direct;
    bool brief = false;
    double storm = 1;  ///< how much more often than usual a request is spoilt
    Milliseconds lease{60'000};
  };

  Weather(const Options& options, std::uint64_t seed, local::LocalService& service,
          Evidence& evidence)
      : options_(options), random_(seed), service_(service), evidence_(evidence) {}

  /// Spoils requests from now on, but for the replies whose loss costs a lease.
  void begin();
  /// Spoils those, too.
  void worsen();
  /// What is due now happens to the service, the driver and, if there is one, what lies between.
  void tick(Clock::time_point now, const test::Program& driver, test::Front* front);
  /// A driver that is stopped goes on.
  void clear(const test::Program& driver);

  const WeatherCounts& counts() const { return counts_; }

 private:
  void add(double probability, local::Fault fault);
  void addAll(const char* endpoint, double rate);
  Clock::time_point after(int least, int most);
  void outage(Clock::time_point now);
  void suspend(Clock::time_point now, const test::Program& driver);
  void disturbRoad(Clock::time_point now, test::Front& front);

  const Options options_;
  Random random_;
  local::LocalService& service_;
  Evidence& evidence_;
  WeatherCounts counts_;
  Clock::time_point nextOutage_;
  Clock::time_point nextSuspend_;
  Clock::time_point nextOnRoad_;
  std::optional<Clock::time_point> longSuspend_;
  std::optional<Clock::time_point> suspendedUntil_;
};

}  // namespace verdo::soak
