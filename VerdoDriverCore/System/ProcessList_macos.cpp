#include "VerdoDriverCore/System/ProcessList.h"

#include <array>

#include <sys/sysctl.h>
#include <sys/time.h>

namespace verdo::ProcessList {
namespace {

/// What the kernel lists for a process or a group (sysctl(3), KERN_PROC).
std::vector<kinfo_proc> ask(int kind, pid_t id) {
  std::array<int, 4> name{CTL_KERN, KERN_PROC, kind, id};
  std::size_t size = 0;
  if (::sysctl(name.data(), name.size(), nullptr, &size, nullptr, 0) != 0) return {};
  // Room for those that start meanwhile.
  std::vector<kinfo_proc> found(size / sizeof(kinfo_proc) + 16);
  size = found.size() * sizeof(kinfo_proc);
  if (::sysctl(name.data(), name.size(), found.data(), &size, nullptr, 0) != 0) return {};
  found.resize(size / sizeof(kinfo_proc));
  return found;
}

Time microseconds(const timeval& time) { return Time{time.tv_sec} * 1'000'000 + time.tv_usec; }

}  // namespace

std::optional<Time> startOf(pid_t pid) {
  const auto found = ask(KERN_PROC_PID, pid);
  if (found.empty()) return std::nullopt;
  return microseconds(found[0].kp_proc.p_starttime);
}

std::vector<Member> inGroup(pid_t group) {
  std::vector<Member> members;
  for (const auto& process : ask(KERN_PROC_PGRP, group)) {
    if (process.kp_proc.p_stat == SZOMB) continue;
    members.push_back({process.kp_proc.p_pid, microseconds(process.kp_proc.p_starttime)});
  }
  return members;
}

Time now() {
  timeval time{};
  ::gettimeofday(&time, nullptr);
  return microseconds(time);
}

std::string scope() {
  std::array<char, 64> boot{};
  std::size_t size = boot.size() - 1;
  if (::sysctlbyname("kern.bootsessionuuid", boot.data(), &size, nullptr, 0) != 0) return "";
  return boot.data();
}

}  // namespace verdo::ProcessList
