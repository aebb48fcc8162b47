#include "soak/Executor.h"
#include "soak/Road.h"
#include "soak/Table.h"
#include "tests/Support/Sanitized.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <signal.h>

namespace {

using namespace verdo::soak;

struct Arguments {
  int jobs = 120;
  std::uint64_t seed = 1;
  std::string logs = ".";
  std::string executor;
};

std::vector<RoadOptions> roadsOf(const Arguments& arguments) {
  using namespace std::chrono_literals;
  const bool brief = arguments.jobs < 1000;
  RoadOptions common;
  common.brief = brief;
  common.storm = brief ? 2 : 1;
  if (brief) common.lease = 20s;  // which is what the loss of a poll's reply costs
  common.lanes = brief ? 24 : 96;
  // Twenty minutes for ten thousand jobs are to be had; a busy machine may take thrice as long.
  common.patience =
      std::chrono::seconds(80 + arguments.jobs * (verdo::test::kSanitized ? 4 : 1) / 3);
  RoadOptions direct = common;
  direct.name = "direct";
  RoadOptions http2 = common;
  http2.name = "http2";
  http2.way = Way::http2;
  http2.jobs = arguments.jobs / 5;
  // A dead path is noticed after 45 s: too long for a run of a minute, and slow in any.
  RoadOptions dying = common;
  dying.name = "dying";
  dying.way = Way::dying;
  dying.jobs = brief ? 0 : arguments.jobs / 20;
  direct.jobs = arguments.jobs - http2.jobs - dying.jobs;
  std::vector<RoadOptions> roads{direct, http2};
  if (dying.jobs > 0) roads.push_back(dying);
  for (std::size_t i = 0; i < roads.size(); ++i) roads[i].seed = arguments.seed * 1000 + 100 * i;
  return roads;
}

/// What was found, and the driver's log in a file, for a road on which something is off.
void explain(const RoadReport& report, const std::string& directory) {
  for (const auto& finding : report.tally.findings) {
    fmt::print("{}: {}\n", report.name, finding);
  }
  const auto path = (std::filesystem::path(directory) / ("soak-" + report.name + ".log")).string();
  std::ofstream(path) << report.log;
  fmt::print("{}: the driver's log is {}\n", report.name, path);
}

int soak(const Arguments& arguments) {
  std::vector<std::future<RoadReport>> running;
  for (const auto& options : roadsOf(arguments)) {
    running.push_back(std::async(std::launch::async, [options] { return Road(options).run(); }));
  }
  std::vector<RoadReport> reports;
  for (auto& road : running) reports.push_back(road.get());
  fmt::print("{} jobs, seed {}\n{}", arguments.jobs, arguments.seed, format(reports));
  bool sound = true;
  for (const auto& report : reports) {
    if (isSound(report)) continue;
    sound = false;
    explain(report, arguments.logs);
  }
  return sound ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app("Runs jobs under fire and accounts for every line of every one.");
  app.add_option("jobs", arguments.jobs)->check(CLI::Range(12, 1'000'000));
  app.add_option("--seed", arguments.seed, "of the plan");
  app.add_option("--logs", arguments.logs, "where the driver's log goes when something is off");
  app.add_option("--execute", arguments.executor)->group("");
  CLI11_PARSE(app, argc, argv);
  ::signal(SIGPIPE, SIG_IGN);
  try {
    return arguments.executor.empty() ? soak(arguments) : execute(arguments.executor);
  } catch (const std::exception& error) {
    fmt::print(stderr, "soak: {}\n", error.what());
    return 2;
  }
}
