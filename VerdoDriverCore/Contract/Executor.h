#pragma once

#include <optional>
#include <string>
#include <vector>

namespace verdo::Executor {

/// The path of the program that an executor command names, searched in `extraPathDirs` and then
/// in PATH. Absent when the command is empty, cannot be split, or names nothing executable.
std::optional<std::string> locate(const std::string& command,
                                  const std::vector<std::string>& extraPathDirs);

/// The command that a front end uses unless it is told another one: defaultExecutor, or
/// fallbackExecutor where only that one's program is found. defaultExecutor where neither is, so
/// that the run's message names what the service's page tells people to install.
std::string defaultCommand(const std::vector<std::string>& extraPathDirs);

}  // namespace verdo::Executor
