#include "VerdoDriverCore/System/ProcessList.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <time.h>
#include <unistd.h>

namespace verdo::ProcessList {
namespace {

struct Stat {
  char state = 'X';
  pid_t group = 0;
  Time start = 0;
};

/// Of "{pid} ({name}) {state} {parent} {group} …": a name may hold anything, ") R 1" included.
/// The start is the 22nd field, in ticks since the system's start (proc(5)).
std::optional<Stat> statOf(const std::string& pid) {
  std::ifstream file("/proc/" + pid + "/stat");
  std::string text;
  std::getline(file, text, '\0');
  const auto name = text.rfind(')');
  if (name == text.npos) return std::nullopt;
  std::istringstream fields(text.substr(name + 1));
  Stat stat;
  std::string ignored;
  fields >> stat.state >> ignored >> stat.group;
  for (int field = 6; field < 22; ++field) fields >> ignored;
  if (!(fields >> stat.start)) return std::nullopt;
  return stat;
}

}  // namespace

std::optional<Time> startOf(pid_t pid) {
  const auto stat = statOf(std::to_string(pid));
  if (!stat) return std::nullopt;
  return stat->start;
}

std::vector<Member> inGroup(pid_t group) {
  std::vector<Member> members;
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator("/proc", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename();
    pid_t pid = 0;
    if (std::from_chars(name.data(), name.data() + name.size(), pid).ec != std::errc()) continue;
    const auto stat = statOf(name);
    if (stat && stat->group == group && stat->state != 'Z' && stat->state != 'X') {
      members.push_back({pid, stat->start});
    }
  }
  return members;
}

Time now() {
  timespec time{};
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  const Time ticks = ::sysconf(_SC_CLK_TCK);
  return time.tv_sec * ticks + time.tv_nsec * ticks / 1'000'000'000;
}

std::string scope() {
  std::string boot;
  std::ifstream("/proc/sys/kernel/random/boot_id") >> boot;
  std::error_code error;
  const std::string numbers = std::filesystem::read_symlink("/proc/self/ns/pid", error);
  return boot.empty() || error ? "" : boot + "/" + numbers;
}

}  // namespace verdo::ProcessList
