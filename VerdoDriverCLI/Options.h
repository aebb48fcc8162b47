#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"

#include <optional>
#include <string>
#include <variant>

namespace verdo::cli {

/// What `verdo-driver doctor` is asked for beyond the run's options.
struct DoctorOptions {
  bool thorough = false;  ///< --thorough
  bool json = false;      ///< --json
  bool report = false;    ///< --report; never with --json
};

/// What the command line says. Secrets are not among it: they come from the environment or the
/// env file, never from where every process listing shows them.
struct Options {
  DriverConfig config;                  ///< with everything that the command line alone can set
  std::optional<std::string> server;    ///< --server
  std::optional<std::string> llmBase;   ///< --llm-base
  std::optional<std::string> exec;      ///< --exec
  std::optional<bool> color;            ///< --color; absent: as the terminal has it
  std::optional<DoctorOptions> doctor;  ///< `doctor`: look what is wrong instead of serving
};

/// A command line that runs nothing: help, version, or a usage error.
struct Ended {
  int status = 0;
  std::string text;  ///< for standard output when the status is 0, else for standard error
};

/// Reads the command line.
std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv);

}  // namespace verdo::cli
