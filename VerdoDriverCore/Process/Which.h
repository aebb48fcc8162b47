#pragma once

#include <optional>
#include <string>
#include <vector>

/// Finds programs the way a shell does.
namespace verdo::Which {

/// The search path of a process whose environment has no PATH.
inline constexpr const char* kDefaultPath = "/usr/local/bin:/usr/bin:/bin";

/// True for an existing path that is no directory and that this process may execute.
bool isExecutableFile(const std::string& path);

/// The path of the executable `name`: the name itself when it holds a "/", else the first match in
/// `extraPathDirs` and then in `path` (absent: the environment's PATH, else kDefaultPath). An empty
/// piece of the path means the current directory. Absent when nothing matches.
std::optional<std::string> find(const std::string& name,
                                const std::vector<std::string>& extraPathDirs = {},
                                const std::optional<std::string>& path = std::nullopt);

}  // namespace verdo::Which
