#include "bench/Benches.h"
#include "bench/Child.h"
#include "bench/Driver.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;

constexpr int kRounds = 100;
constexpr int kJobs = 200;                   // of a round, half of them LLM jobs
constexpr int kPolls = 2'000;                // of a round, at least
constexpr double kMaxGrowth = 1.0;           // MB
constexpr std::size_t kIdleConnections = 4;  // that differ by how many jobs just ended together

/// What a process holds that it could fail to give back.
struct Holdings {
  double anonymous = 0;  ///< memory of its own, MB
  std::size_t descriptors = 0;
  std::size_t threads = 0;
};

std::size_t entriesOf(const std::filesystem::path& directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// The least of a moment: a thread or connection may be on its way out.
Holdings holdingsOf(const MeasuredProcess& process) {
  const std::filesystem::path proc = "/proc/" + std::to_string(process.pid());
  Holdings least{1e9, SIZE_MAX, SIZE_MAX};
  for (int look = 0; look < 20; ++look) {
    least.anonymous = std::min(least.anonymous, process.usage().anonymous);
    least.descriptors = std::min(least.descriptors, entriesOf(proc / "fd"));
    least.threads = std::min(least.threads, entriesOf(proc / "task"));
    std::this_thread::sleep_for(10ms);
  }
  return least;
}

/// Jobs as they come: texts of all lengths, files, failures of both sides, cancels. Gives those
/// that are to be completed.
std::vector<std::int64_t> queueJobs(local::LocalService& service, int round) {
  std::vector<std::int64_t> wanted;
  for (int i = 0; i < kJobs / 2; ++i) {
    const int number = round * kJobs / 2 + i;
    local::JobSpec script;
    script.keepLines = false;
    script.payload = fmt::format("{}", number % 50 == 0 ? 1'000'000 : number % 997);
    if (number % 20 == 0) script.files = {{.name = "input", .content = std::string(5'000, 'f')}};
    script.cancelled = number % 25 == 0;
    const auto id = service.jobs().add(script);
    if (!script.cancelled) wanted.push_back(id);

    local::JobSpec call;
    call.keepLines = false;
    call.kind = "llm";
    call.label = fmt::format("l{}", i);
    call.payload = fmt::format(R"({{"v": 1, "model": "m", "prompt": "{}{}"}})",
                               number % 10 == 0 ? "fail " : "",
                               std::string(static_cast<std::size_t>(number % 499), 'p'));
    wanted.push_back(service.jobs().add(call));
  }
  return wanted;
}

void playRound(local::LocalService& service, int round) {
  service.reset();
  service.provider().add({.match = "fail", .status = 500, .content = "out of order"});
  service.faults().add(
      {.endpoint = "lines", .probability = 0.02, .delivery = local::Delivery::reset});
  service.faults().add({.endpoint = "poll", .probability = 0.001, .reply = local::FaultReply{502}});
  for (const auto id : queueJobs(service, round)) {
    if (!service.jobs().waitFor(id, local::JobState::done, 120s)) {
      throw std::runtime_error(fmt::format("job {} does not end", id));
    }
  }
  while (service.requests().count("poll") < kPolls) std::this_thread::sleep_for(10ms);
}

}  // namespace

void benchLifetime(std::vector<Row>& rows) {
  local::LocalService service;
  service.start();
  const MeasuredProcess driver(
      VERDO_HURRIED_PATH, {service.url(), service.providerUrl(), childCommand("script")},
      {{"VERDO_DRIVER_TOKEN", service.token()}, {"VERDO_LLM_API_KEY", service.providerKey()}});

  Holdings early;
  Holdings middle;
  for (int round = 0; round < kRounds; ++round) {
    playRound(service, round);
    if (round + 1 == kRounds / 10) early = holdingsOf(driver);
    if (round + 1 == kRounds / 2) middle = holdingsOf(driver);
  }
  const Holdings late = holdingsOf(driver);
  const auto name = [](const char* what) {
    return fmt::format("{} polls, {} jobs: {}", kRounds * kPolls, kRounds * kJobs, what);
  };
  const double growth = late.anonymous - early.anonymous;
  rows.push_back(
      {name("growth of memory after the first tenth"), fmt::format("{:.2f} MB", growth),
       fmt::format("{:.0f} MB", kMaxGrowth), growth < kMaxGrowth,
       fmt::format("{:.2f} MB then, {:.2f} MB at half time", early.anonymous, middle.anonymous)});
  const std::size_t descriptors = early.descriptors + kIdleConnections;
  rows.push_back({name("descriptors"), fmt::format("{}", late.descriptors),
                  fmt::format("{}", descriptors), late.descriptors <= descriptors,
                  fmt::format("{} after the first tenth", early.descriptors)});
  rows.push_back({name("threads"), fmt::format("{}", late.threads),
                  fmt::format("{}", early.threads), late.threads <= early.threads,
                  "after the first tenth"});
}

}  // namespace verdo::bench
