#pragma once

#include "VerdoDriverCore/Values/JV.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

/// How the executor is asked for its task spaces, and what its answer says.
namespace verdo::TaskSpaceList {

/// The script that has the executor print them.
inline constexpr const char* kScript =
    "const spaces = await listTaskSpaces()\n"
    "cliLog('__SPACES__' + JSON.stringify(spaces || []))\n";

/// The spaces that the script's output tells of, each an object; absent when its first answer is no
/// list. Other output around it, and what is no space in the list, is passed over.
std::optional<std::vector<JV>> read(std::span<const std::string> lines);

/// The names of spaces, without those that have none.
std::vector<std::string> names(std::span<const JV> spaces);

}  // namespace verdo::TaskSpaceList
