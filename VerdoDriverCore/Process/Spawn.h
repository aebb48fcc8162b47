#pragma once

#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace verdo {

using Environment = std::map<std::string, std::string>;

/// This process's environment, without the entries that have no "=".
Environment currentEnvironment();

namespace Spawn {

/// A child that could not be started. what() is "[Errno {code}] {strerror}: '{path}'".
class Error : public verdo::Error {
 public:
  Error(int code, const std::string& path) : verdo::Error(pyErrnoText(code, path)), code_(code) {}
  std::string pyName() const override { return "OSError"; }
  /// The errno.
  int code() const { return code_; }

 private:
  int code_;
};

/// Starts `path` with the argument vector `argv` (program name first) and exactly the environment
/// `env`. The child leads a new process group, has default signal handling, no blocked signals and
/// no descriptor beyond 0 to 2, which are pipes; with `mergeStderr` its standard error goes where
/// its standard output goes. Throws Spawn::Error.
std::unique_ptr<ChildProcess> launch(const std::string& path, const std::vector<std::string>& argv,
                                     const Environment& env, bool mergeStderr);

}  // namespace Spawn
}  // namespace verdo
