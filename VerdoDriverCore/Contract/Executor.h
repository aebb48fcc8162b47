#pragma once

#include <optional>
#include <string>
#include <vector>

namespace verdo::Executor {

/// The path of the program that an executor command names, searched in `extraPathDirs` and then
/// in PATH. Absent when the command is empty, cannot be split, or names nothing executable.
std::optional<std::string> locate(const std::string& command,
                                  const std::vector<std::string>& extraPathDirs);

}  // namespace verdo::Executor
