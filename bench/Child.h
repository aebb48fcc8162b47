#pragma once

#include <string>
#include <vector>

namespace verdo::bench {

/// The executor command that plays a role of child.cpp.
inline std::string childCommand(const std::string& role) {
  return std::string("'") + VERDO_CHILD_PATH + "' " + role;
}

/// The argument vector for the same; the program is its first word.
inline std::vector<std::string> childArgv(const std::vector<std::string>& role) {
  std::vector<std::string> argv{VERDO_CHILD_PATH};
  argv.insert(argv.end(), role.begin(), role.end());
  return argv;
}

}  // namespace verdo::bench
