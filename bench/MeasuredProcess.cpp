#include "bench/MeasuredProcess.h"

#include "VerdoDriverCore/System/Files.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <signal.h>
#include <unistd.h>

namespace verdo::bench {
namespace {

namespace fs = std::filesystem;

/// The number behind a key of a /proc status file; 0 when it is not there.
std::uint64_t statusValue(const fs::path& file, const std::string& key) {
  std::ifstream status(file);
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key + ":")) return std::stoull(line.substr(key.size() + 1));
  }
  return 0;
}

constexpr double kKibibyteInMegabytes = 1024.0 / 1e6;

}  // namespace

double secondsBetween(std::chrono::steady_clock::time_point from,
                      std::chrono::steady_clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

MeasuredProcess::MeasuredProcess(const std::string& program, std::vector<std::string> arguments,
                                 const Environment& additional) {
  arguments.insert(arguments.begin(), program);
  Environment environment = currentEnvironment();
  for (const auto& [key, value] : additional) environment[key] = value;
  startedAt_ = Clock::now();
  child_ = Spawn::launch(program, arguments, environment, true);
  out_ = std::make_unique<LineReader>(child_->takeStdout(), [](auto) {});
  out_->start();
  in_ = child_->takeStdin();
}

MeasuredProcess::~MeasuredProcess() { stop(); }

Usage MeasuredProcess::usage() const {
  const fs::path process = "/proc/" + std::to_string(child_->pid());
  Usage usage;
  usage.rss = static_cast<double>(statusValue(process / "status", "VmRSS")) * kKibibyteInMegabytes;
  usage.peakRss =
      static_cast<double>(statusValue(process / "status", "VmHWM")) * kKibibyteInMegabytes;
  usage.anonymous =
      static_cast<double>(statusValue(process / "status", "RssAnon")) * kKibibyteInMegabytes;
  std::ifstream stat(process / "stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  // Behind the program's name, which may hold anything: user and system time are 12 and 13 further.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string field;
  double ticks = 0;
  for (int i = 1; fields >> field && i <= 13; ++i) {
    if (i >= 12) ticks += std::stod(field);
  }
  usage.cpu = ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
  for (const auto& task : fs::directory_iterator(process / "task")) {
    const auto switches = statusValue(task.path() / "status", "voluntary_ctxt_switches");
    usage.threadSwitches[std::stoi(task.path().filename())] = switches;
    usage.switches += switches;
  }
  return usage;
}

void MeasuredProcess::send(const std::string& line) {
  if (writeAll(in_.get(), line + "\n").error != 0) throw std::runtime_error("nobody reads");
}

double MeasuredProcess::waitForEnd() {
  child_->wait();
  return secondsBetween(startedAt_, Clock::now());
}

double MeasuredProcess::stop() {
  const auto begin = Clock::now();
  child_->signalGroup(SIGTERM);
  child_->wait();
  return secondsBetween(begin, Clock::now());
}

Idle measureIdle(const MeasuredProcess& process, std::chrono::seconds time) {
  const Usage before = process.usage();
  std::this_thread::sleep_for(time);
  const Usage after = process.usage();
  return {after.rss, after.cpu - before.cpu,
          static_cast<double>(after.switches - before.switches) / toSeconds(time)};
}

}  // namespace verdo::bench
