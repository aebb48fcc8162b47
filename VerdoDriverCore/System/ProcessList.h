#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

/// The system's processes by what tells one from another that had its number before: the time of
/// its start.
namespace verdo::ProcessList {

/// Only to be compared. Linux: on a clock that nobody sets; macOS: as the clock stood.
using Time = std::int64_t;

struct Member {
  pid_t pid;
  Time start;
};

/// When a process started, one that has ended and was not waited for included; absent for one that
/// is not there.
std::optional<Time> startOf(pid_t pid);
/// The living processes of a process group. They may have ended by now.
std::vector<Member> inGroup(pid_t group);
/// The time of a process that started just now.
Time now();
/// What numbers and times belong to: one word, that differs after the system was started again, and
/// where processes are numbered for themselves (a container). Empty when the system does not tell.
std::string scope();

}  // namespace verdo::ProcessList
