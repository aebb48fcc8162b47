#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/JV.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace verdo {

/// How the browser executor is started.
struct ExecutorCommand {
  std::string path;               ///< the located program
  std::vector<std::string> argv;  ///< the command's words, program name first
  Environment env;
};

/// Runs short scripts of the driver's own in the browser: listing and closing task spaces. Any
/// thread may call any operation; closes of one space are serialised.
class Browser {
 public:
  using Duration = std::chrono::steady_clock::duration;

  struct Result {
    std::int32_t exit = 0;           ///< the child's status; 124 timed out, 127 not started
    std::vector<std::string> lines;  ///< standard output, one empty line, standard error
  };

  /// `timeout` limits one script.
  Browser(ExecutorCommand command, Duration timeout, std::shared_ptr<LogSink> log,
          Timings timings = {});

  const ExecutorCommand& command() const { return command_; }

  /// Runs one script to its end, or to its time-out. Never throws for what the script does.
  Result run(const std::string& script);
  /// Closes a task space and logs how that went. True when the executor said it worked.
  bool closeSpace(const std::string& space) EXCLUDES(locksGuard_);
  /// The task spaces that the browser knows, each an object; empty when no answer could be read.
  std::vector<JV> listSpaces();
  /// The names of those spaces, without the ones that have none.
  std::vector<std::string> spaceNames();

 private:
  std::shared_ptr<Mutex> lockOf(const std::string& space) EXCLUDES(locksGuard_);

  const ExecutorCommand command_;
  const Duration timeout_;
  const std::shared_ptr<LogSink> log_;
  const Timings timings_;
  Mutex locksGuard_;
  std::map<std::string, std::shared_ptr<Mutex>> locks_ GUARDED_BY(locksGuard_);
};

}  // namespace verdo
