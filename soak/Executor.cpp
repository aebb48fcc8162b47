#include "soak/Executor.h"

#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "soak/Plan.h"
#include "tests/Support/TempDir.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

namespace verdo::soak {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kList = "const spaces = await listTaskSpaces()\n";
constexpr std::string_view kClose = "await completeTaskSpace(";
constexpr int kBadFile = 99;
constexpr unsigned kLingererSeconds = 3600;  // one that is forgotten ends by itself
constexpr Milliseconds kFamilyTime{1500};

int list(const fs::path& spaces) {
  auto answer = nlohmann::json::array();
  for (const auto& entry : fs::directory_iterator(spaces)) {
    answer.push_back({{"name", entry.path().filename().string()}});
  }
  std::cout << "__SPACES__" << answer.dump() << std::endl;
  return 0;
}

int close(const fs::path& spaces, const std::string& script) {
  const auto end = script.find(", { keep: false })");
  const auto name = nlohmann::json::parse(script.substr(kClose.size(), end - kClose.size()));
  fs::remove(spaces / name.get<std::string>());
  return 0;
}

/// Prints the lines `from` up to `to` over `time`, in bursts.
void print(const JobPlan& plan, int from, int to, Milliseconds time, int bursts) {
  for (int burst = 0; burst < bursts; ++burst) {
    std::this_thread::sleep_for(time / bursts);
    const int end = from + (to - from) / (bursts - burst);
    std::string text;
    for (; from < end; ++from) text += lineOf(plan, from) + "\n";
    if (!text.empty() && writeAll(STDOUT_FILENO, text).error != 0) _exit(1);
  }
}

/// What the job's grandchild does. `parent` brings a byte once its parent has printed everything,
/// and ends with it.
[[noreturn]] void outlive(const JobPlan& plan, int parent) {
  if (plan.family == Family::lingerer) {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, parent}) ::close(fd);
    ::alarm(kLingererSeconds);
    for (;;) ::pause();
  }
  if (plan.family == Family::runaway) ::setsid();
  char byte = 0;
  const bool isMyTurn = ::read(parent, &byte, 1) == 1 && ::read(parent, &byte, 1) == 0;
  if (isMyTurn) print(plan, plan.lines - plan.familyLines, plan.lines, kFamilyTime, 3);
  _exit(0);
}

JobPlan planOf(const nlohmann::json& script) {
  JobPlan plan;
  plan.number = script.at("number");
  plan.lines = script.at("lines");
  plan.familyLines = script.at("familyLines");
  plan.longLine = script.at("longLine");
  plan.longBytes = script.at("longBytes");
  plan.time = Milliseconds(script.at("time").get<int>());
  plan.bursts = script.at("bursts");
  plan.exitCode = script.at("exitCode");
  plan.endSignal = script.at("endSignal");
  plan.family = static_cast<Family>(script.at("family").get<int>());
  plan.deaf = script.at("deaf");
  plan.fileBytes = script.at("fileBytes");
  return plan;
}

void note(const std::string& directory, int number) {
  const UniqueFd journal(
      ::open((directory + "/journal").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (writeAll(journal.get(), fmt::format("{} {}\n", number, ::getpid())).error != 0) _exit(1);
}

int run(const std::string& directory, const nlohmann::json& script) {
  const auto plan = planOf(script);
  note(directory, plan.number);
  const std::string space = script.at("space");
  const auto spaceFile = fs::path(directory) / "spaces" / space;
  if (!space.empty()) std::ofstream(spaceFile) << "";
  if (plan.fileBytes > 0 && test::contentOf(script.at("file").get<std::string>()) !=
                                fileContent(plan.number, plan.fileBytes)) {
    return kBadFile;
  }
  if (plan.deaf) ::signal(SIGTERM, SIG_IGN);
  std::array<int, 2> turn{-1, -1};
  if (plan.family != Family::none) {
    if (::pipe(turn.data()) != 0) return 1;
    if (::fork() == 0) {
      ::close(turn[1]);
      outlive(plan, turn[0]);
    }
    ::close(turn[0]);
  }
  print(plan, 0, plan.lines - plan.familyLines, plan.time, plan.bursts);
  if (plan.family != Family::none) static_cast<void>(writeAll(turn[1], "."));
  if (script.value("closesSpace", false)) fs::remove(spaceFile);
  if (plan.endSignal != 0) {
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::signal(plan.endSignal, SIG_DFL);
    ::raise(plan.endSignal);
  }
  return plan.exitCode;
}

}  // namespace

int execute(const std::string& directory) {
  const std::string script{std::istreambuf_iterator<char>(std::cin), {}};
  const auto spaces = fs::path(directory) / "spaces";
  if (script.starts_with(kList)) return list(spaces);
  if (script.starts_with(kClose)) return close(spaces, script);
  return run(directory, nlohmann::json::parse(script));
}

}  // namespace verdo::soak
