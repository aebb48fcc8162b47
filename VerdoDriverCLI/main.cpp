#include "VerdoDriverCLI/Config.h"
#include "VerdoDriverCLI/DoctorCommand.h"
#include "VerdoDriverCLI/Options.h"
#include "VerdoDriverCLI/ServiceManager.h"
#include "VerdoDriverCLI/ServiceReport.h"
#include "VerdoDriverCLI/SignalThread.h"
#include "VerdoDriverCLI/SuspendWatch.h"
#include "VerdoDriverCore/Contract/Secrets.h"
#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Run/Runner.h"
#include "VerdoDriverCore/Run/StderrLogSink.h"
#include "VerdoDriverCore/System/LargeBlocks.h"
#include "VerdoDriverCore/System/SuspendClock.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char* kExecutorAdvice =
    "install ego-browser or verdo-browser, or name another executor with --exec; "
    "--extra-path DIR searches DIR too";

/// A descriptor opened later must not take the place of a standard one that is closed.
void openStandardDescriptors() {
  int fd = 0;
  do {
    fd = ::open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd > STDERR_FILENO) ::close(fd);
}

/// Between two looks whether the computer has slept: seldom enough to let it sleep on.
constexpr std::chrono::seconds kSuspendLook{5};

/// Ends at once: a job's thread that was given up on may still use what static destructors destroy.
[[noreturn]] void exitNow(int status) {
  std::fflush(nullptr);
  std::_Exit(status);
}

int serve(verdo::cli::Options options, const verdo::Secrets& secrets) {
  const auto log = std::make_shared<verdo::StderrLogSink>(options.color);
  const bool isExecutorNamed = options.exec.has_value();
  verdo::DriverConfig config;
  try {
    config = verdo::cli::resolveConfig(std::move(options), verdo::currentEnvironment(), secrets);
  } catch (const std::exception& error) {
    log->error(error.what());
    return verdo::ExitReason::badConfig({}).code();
  }

  const auto report = std::make_shared<verdo::cli::ServiceReport>(verdo::cli::tellServiceManager,
                                                                  verdo::cli::watchdogInterval());
  const auto runner = std::make_shared<verdo::DriverRunner>(std::move(config), log, report);
  std::optional<verdo::cli::SuspendWatch> suspendWatch;
  try {
    verdo::cli::handleStopSignals([runner] { runner->stop(); },
                                  [runner, log] {
                                    log->warn("stopping at once");
                                    runner->killJobsNow();
                                    exitNow(verdo::ExitReason::stopped().code());
                                  });
    suspendWatch.emplace([runner] { runner->networkChanged(); }, kSuspendLook,
                         verdo::timeSuspended);
  } catch (const std::system_error& error) {
    log->error(std::string("cannot start a thread: ") + error.what());
    return verdo::ExitReason::serverUnreachable({}).code();  // as the run itself without threads
  }
  const verdo::ExitReason reason = runner->run();
  report->ended(reason.message().empty() ? "ended" : reason.message());
  if (reason.kind() == verdo::ExitReason::Kind::noExecutor && !isExecutorNamed) {
    log->warn(kExecutorAdvice);
  }
  using Kind = verdo::ExitReason::Kind;
  const bool isSaid = runner->hasServed() &&
                      (reason.kind() == Kind::tokenRevoked || reason.kind() == Kind::outOfDate);
  if (!reason.message().empty() && !isSaid) log->error(reason.message());
  return reason.code();
}

int examine(verdo::cli::Options options, const verdo::Secrets& secrets) {
  const verdo::cli::DoctorCommand command(std::move(options), secrets);
  try {
    verdo::cli::handleStopSignals([&command] { command.stop(); },
                                  [] { exitNow(verdo::ExitReason::stopped().code()); });
  } catch (const std::system_error& error) {
    std::fprintf(stderr, "cannot start a thread: %s\n", error.what());
    return verdo::ExitReason::serverUnreachable({}).code();
  }
  exitNow(command.run());  // while the signals' thread may still use the command
}

}  // namespace

int main(int argc, char** argv) try {
  openStandardDescriptors();
  verdo::giveBackLargeBlocks();
  verdo::keepEndedChildren();
  verdo::forbidCoreDumps();
  const verdo::Secrets secrets = verdo::eraseSecretsFromEnvironment();
  auto parsed = verdo::cli::parseCommandLine(argc, argv);
  if (const auto* ended = std::get_if<verdo::cli::Ended>(&parsed)) {
    std::fputs(ended->text.c_str(), ended->status == 0 ? stdout : stderr);
    return ended->status;
  }
  auto& options = std::get<verdo::cli::Options>(parsed);
  exitNow(options.doctor ? examine(std::move(options), secrets)
                         : serve(std::move(options), secrets));
} catch (const std::exception& error) {
  // Out of memory before there was anything to lose. A run reports its own failures.
  std::fprintf(stderr, "verdo-driver: %s\n", error.what());
  exitNow(verdo::ExitReason::serverUnreachable({}).code());
}
