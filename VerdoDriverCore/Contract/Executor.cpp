#include "VerdoDriverCore/Contract/Executor.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Process/Shlex.h"
#include "VerdoDriverCore/Process/Which.h"

namespace verdo::Executor {

std::optional<std::string> locate(const std::string& command,
                                  const std::vector<std::string>& extraPathDirs) try {
  const auto words = Shlex::split(command);
  return words.empty() ? std::nullopt : Which::find(words.front(), extraPathDirs);
} catch (const Shlex::Error&) {
  // The caller learns only that there is nothing to run, whichever way the command is unusable.
  return std::nullopt;
}

std::string defaultCommand(const std::vector<std::string>& extraPathDirs) {
  using namespace DriverConstants;
  const bool takesFallback =
      !locate(defaultExecutor, extraPathDirs) && locate(fallbackExecutor, extraPathDirs);
  return takesFallback ? fallbackExecutor : defaultExecutor;
}

}  // namespace verdo::Executor
