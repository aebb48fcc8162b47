#include "VerdoDriverCore/Network/HttpSession.h"
#include "bench/Benches.h"
#include "bench/Child.h"
#include "bench/Driver.h"

#include <stdexcept>

#include <fmt/format.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kJobs = 12;

/// The time that a child of the role "stamp" printed as its first act.
Clock::time_point stampOf(const std::vector<std::string>& lines) {
  if (lines.empty()) throw std::runtime_error("a job printed nothing");
  return Clock::time_point(std::chrono::nanoseconds(std::stoll(lines.front())));
}

/// One request and its reply over a connection that is open already, milliseconds.
double referenceRoundTrip(local::LocalService& service) {
  HttpSession session;
  std::vector<double> times;
  for (int i = 0; i < 50; ++i) {
    HttpRequest request;
    request.url = service.url() + "/files/none";
    const auto begin = Clock::now();
    static_cast<void>(session.perform(std::move(request)));
    times.push_back(secondsBetween(begin, Clock::now()) * 1e3);
  }
  return median(times);
}

/// From the call that starts a child to the child's first act, milliseconds.
double referenceSpawn() {
  std::vector<double> times;
  for (int i = 0; i < kJobs; ++i) {
    std::vector<std::string> lines;
    const auto begin = Clock::now();
    const auto child =
        Spawn::launch(VERDO_CHILD_PATH, childArgv({"stamp"}), currentEnvironment(), true);
    LineReader reader(child->takeStdout(), [&](auto some) {
      for (const auto line : some) lines.emplace_back(line);
    });
    reader.feed(child->takeStdin(), "stamp");
    reader.start();
    reader.done().waitFor(10s);
    times.push_back(secondsBetween(begin, stampOf(lines)) * 1e3);
  }
  return median(times);
}

}  // namespace

void benchJobs(std::vector<Row>& rows) {
  local::LocalService service;
  service.start();
  const auto driver = startDriver(service, childCommand("stamp"));
  std::vector<double> acknowledged;
  std::vector<double> running;
  for (int i = 0; i < kJobs; ++i) {
    local::JobSpec spec;
    spec.payload = "stamp";
    const auto id = service.jobs().add(spec);
    if (!service.jobs().waitFor(id, local::JobState::done, 20s)) {
      throw std::runtime_error("a job did not end");
    }
    std::optional<Clock::time_point> given;
    for (const auto& request : service.requests().list()) {
      if (request.endpoint == "poll" && request.status == 200) given = request.replied;
      if (request.endpoint != "lines" || request.jobId != id) continue;
      acknowledged.push_back(secondsBetween(given.value(), request.arrived) * 1e3);
      running.push_back(secondsBetween(request.arrived, stampOf(service.jobs().lines(id))) * 1e3);
      break;
    }
  }
  rows.push_back(
      {"poll reply → acknowledgement on the wire", fmt::format("{:.2f} ms", median(acknowledged)),
       "1 ms", median(acknowledged) <= 1,
       fmt::format("round trip on an open connection {:.2f} ms", referenceRoundTrip(service))});
  rows.push_back({"acknowledgement → child runs", fmt::format("{:.2f} ms", median(running)), "2 ms",
                  median(running) <= 2,
                  fmt::format("starting the same child {:.2f} ms", referenceSpawn())});
}

}  // namespace verdo::bench
