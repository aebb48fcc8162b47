#include "VerdoDriverCore/Doctor/LocalChecks.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Network/CertificateFile.h"
#include "VerdoDriverCore/Process/Shlex.h"
#include "VerdoDriverCore/Run/Preparation.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

constexpr const char* kConfigurationCheck = "configuration";
constexpr const char* kAddressCheck = "server address";
constexpr const char* kExecutorCheck = "executor";
constexpr const char* kCacheCheck = "disk";

// Of an executor whose time was up, and of one that could not be started.
constexpr std::int32_t kExitTimedOut = 124;
constexpr std::int32_t kExitNotStarted = 127;

constexpr std::size_t kQuotedOutput = 200;  // characters

/// Drops what it is told: findings say it all.
class NoLog : public LogSink {
 public:
  void info(const std::string&) override {}
  void success(const std::string&) override {}
  void warn(const std::string&) override {}
  void error(const std::string&) override {}
};

/// Others than its owner may change what lies at the path, or in it.
bool isOpenToOthers(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

/// The first line that says anything.
std::string firstLine(const std::vector<std::string>& lines) {
  const auto said = std::find_if(lines.begin(), lines.end(),
                                 [](const std::string& line) { return !line.empty(); });
  return said == lines.end() ? "" : firstCharacters(*said, kQuotedOutput);
}

std::string inMegabytes(std::uintmax_t bytes) { return fmt::format("{} MB", bytes / 1'000'000); }

std::optional<Finding> certificateDefect(const DriverConfig& config, const Remedies& remedies) {
  const auto path = config.caCertPath ? config.caCertPath : config.extraCaCertPath;
  if (!path) return std::nullopt;
  try {
    static_cast<void>(loadCertificates(*path));
    return std::nullopt;
  } catch (const PyError& error) {
    return Finding::failed(kConfigurationCheck, fmt::format("the CA file {} is of no use", *path),
                           remedies.caFile, error.what());
  }
}

Finding missingExecutor(const DriverConfig& config, const std::string& reason,
                        const Remedies& remedies) {
  std::string program;
  try {
    const auto words = Shlex::split(config.execCommand);
    if (!words.empty()) program = words.front();
  } catch (const Shlex::Error&) {
    return Finding::failed(kExecutorCheck, "the executor's command cannot be split into words",
                           remedies.executorCommand, reason);
  }
  struct stat status{};
  if (program.find('/') != std::string::npos && ::stat(program.c_str(), &status) == 0) {
    return Finding::failed(
        kExecutorCheck,
        fmt::format("{} {}", program,
                    S_ISDIR(status.st_mode) ? "is a directory" : "may not be executed"),
        S_ISDIR(status.st_mode) ? remedies.executorProgram : "chmod +x " + program);
  }
  return Finding::failed(kExecutorCheck, reason, remedies.executor);
}

}  // namespace

Finding checkConfiguration(const DriverConfig& config, const std::string& envFile,
                           const Remedies& remedies) {
  if (auto defect = certificateDefect(config, remedies)) return *std::move(defect);
  if (config.token.empty()) {
    return Finding::failed(
        kConfigurationCheck, "there is no driver token",
        envFile.empty() ? remedies.connect : howToGive(DriverConstants::tokenEnv, envFile));
  }
  std::error_code missing;
  if (envFile.empty() || !std::filesystem::exists(envFile, missing)) {
    return Finding::ok(kConfigurationCheck, "complete");
  }
  const std::string directory = std::filesystem::path(envFile).parent_path();
  if (isOpenToOthers(directory)) {
    return Finding::warning(kConfigurationCheck,
                            fmt::format("others may replace the files in {}", directory),
                            "chmod go-w " + directory);
  }
  return Finding::ok(kConfigurationCheck, "complete; only you can read " + envFile);
}

Finding checkAddress(const DriverConfig& config, const Remedies& remedies) {
  const std::string& remedy = remedies.address;
  if (ServerURLPolicy::refusal(config.server, true)) {
    return Finding::failed(kAddressCheck, "it must not hold a user name or password", remedy);
  }
  if (const auto refusal = ServerURLPolicy::pathRefusal(config.server)) {
    return Finding::failed(kAddressCheck, *refusal, remedy);
  }
  if (!Url::parse(config.server)) {
    return Finding::failed(kAddressCheck, "it is not an http(s):// URL", remedy, config.server);
  }
  if (ServerURLPolicy::refusal(config.server, config.insecure)) {
    return Finding::failed(
        kAddressCheck,
        fmt::format("{} is plain http to another computer: the token would travel in clear",
                    config.server),
        remedies.plainHttp);
  }
  return Finding::ok(kAddressCheck, config.server);
}

Finding checkExecutor(const DriverConfig& config, Timings::Duration limit, const Timings& timings,
                      const Event& interrupted, const Remedies& remedies) {
  auto found = findExecutor(config);
  if (const auto* missing = std::get_if<ExitReason>(&found)) {
    return missingExecutor(config, missing->message(), remedies);
  }
  const auto& command = std::get<ExecutorCommand>(found);
  Browser browser(command, limit, std::make_shared<NoLog>(), timings);
  const auto list = browser.askForSpaces({&interrupted});
  if (list.spaces) {
    return Finding::ok(kExecutorCheck, fmt::format("{} answers, with {} task space(s)",
                                                   command.path, list.spaces->size()));
  }
  const auto failed = [&](const std::string& reason, const std::string& remedy) {
    return Finding::failed(kExecutorCheck, fmt::format("{} {}", command.path, reason), remedy,
                           firstLine(list.script.lines));
  };
  if (list.script.exit == kExitTimedOut) {
    return failed(fmt::format("gives no answer within {:.0f} s", toSeconds(limit)),
                  "Start the browser by hand and see whether it waits for something; if not, end "
                  "what is left of it and try again.");
  }
  if (list.script.exit == kExitNotStarted) {
    return failed("cannot be started",
                  "Run it by hand: it, or what it needs, is missing or was "
                  "made for another system.");
  }
  if (list.script.exit != 0) {
    return failed(
        fmt::format("ends with status {} when asked for its task spaces", list.script.exit),
        "Run it by hand and see what it says.");
  }
  return failed("answers, but not as a browser executor does", remedies.executorAnswer);
}

Finding checkCache(const std::string& directory, std::uintmax_t minFree) try {
  const StagingDirectory staging(directory);
  const auto available = std::filesystem::space(staging.path()).available;
  const std::string room = fmt::format("{} free in {}", inMegabytes(available), directory);
  const std::string remedy = "Make room: the files of jobs and the browser's profiles lie there.";
  if (available < minFree) {
    return Finding::failed(kCacheCheck, "the disk is full: " + room, remedy);
  }
  if (available / 10 < minFree) {
    return Finding::warning(kCacheCheck, "the disk is nearly full: " + room, remedy);
  }
  return Finding::ok(kCacheCheck, room);
} catch (const std::exception& error) {
  return Finding::failed(kCacheCheck,
                         fmt::format("job files cannot be kept in {}: {}", directory, error.what()),
                         "Make it a directory that you may write to, on a disk with room.");
}

}  // namespace verdo
