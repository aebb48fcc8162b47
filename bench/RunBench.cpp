#include "bench/Benches.h"
#include "bench/Child.h"
#include "bench/Driver.h"

#include <stdexcept>
#include <thread>

#include <fmt/format.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;

constexpr auto kIdleTime = 10s;

/// Seconds from the start of a process to the n-th hello that the service saw.
double untilHello(local::LocalService& service, std::uint64_t n, const MeasuredProcess& process) {
  const auto hello = service.requests().waitFor("hello", n, 10s);
  if (!hello) throw std::runtime_error("no hello came");
  return secondsBetween(process.startedAt(), hello->arrived);
}

void waitForPoll(local::LocalService& service, std::uint64_t n) {
  if (!service.requests().waitFor("poll", n, 10s)) throw std::runtime_error("no poll came");
  // Sent and settled: what follows is the waiting itself.
  std::this_thread::sleep_for(500ms);
}

Row idleRow(const char* what, double value, const char* unit, double target, double reference) {
  return {fmt::format("idle in a long poll: {}", what), fmt::format("{:.1f} {}", value, unit),
          fmt::format("{:.0f} {}", target, unit), value <= target,
          fmt::format("bare libcurl client {:.1f} {}", reference, unit)};
}

}  // namespace

void benchRun(std::vector<Row>& rows) {
  local::LocalService service;
  service.start();

  std::vector<double> starts;
  std::vector<double> stops;
  std::vector<double> referenceStarts;
  std::vector<double> referenceStops;
  std::uint64_t hellos = 0;
  std::uint64_t polls = 0;
  for (int i = 0; i < 15; ++i) {
    auto driver = startDriver(service, childCommand("stamp"));
    starts.push_back(untilHello(service, ++hellos, driver) * 1e3);
    waitForPoll(service, ++polls);
    stops.push_back(driver.stop() * 1e3);
  }
  for (int i = 0; i < 5; ++i) {
    const MeasuredProcess python("/usr/bin/python3",
                                 {VERDO_REFERENCE_DIR "/hello.py", service.url(), service.token()});
    referenceStarts.push_back(untilHello(service, ++hellos, python) * 1e3);
    MeasuredProcess sleeper("/bin/sleep", {"60"});
    std::this_thread::sleep_for(50ms);
    referenceStops.push_back(sleeper.stop() * 1e3);
  }
  rows.push_back({"process start → hello on the wire", fmt::format("{:.1f} ms", median(starts)),
                  "15 ms", median(starts) <= 15,
                  fmt::format("Python client {:.1f} ms", median(referenceStarts))});

  const auto driver = startDriver(service, childCommand("stamp"));
  waitForPoll(service, ++polls);
  const MeasuredProcess client(VERDO_CLIENT_PATH,
                               {service.url() + "/api/driver/poll?wait=25", service.token()});
  waitForPoll(service, ++polls);
  const Idle reference = measureIdle(client, kIdleTime);
  const Idle idle = measureIdle(driver, kIdleTime);
  rows.push_back(idleRow("memory", idle.rss, "MB", 14, reference.rss));
  rows.push_back(idleRow("CPU", idle.cpu * 1e3 / toSeconds(kIdleTime), "ms/s", 0,
                         reference.cpu * 1e3 / toSeconds(kIdleTime)));
  rows.push_back(idleRow("wake-ups", idle.wakeups, "/s", 1, reference.wakeups));
  rows.push_back({"SIGTERM during a poll → exit", fmt::format("{:.1f} ms", median(stops)), "20 ms",
                  median(stops) <= 20, fmt::format("sleep(1) {:.1f} ms", median(referenceStops))});
}

}  // namespace verdo::bench
