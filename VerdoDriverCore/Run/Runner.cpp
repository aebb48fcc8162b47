#include "VerdoDriverCore/Run/Runner.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/Network/CertificateFile.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Process/Shlex.h"
#include "VerdoDriverCore/Process/Which.h"
#include "VerdoDriverCore/Run/Driver.h"
#include "VerdoDriverCore/Values/PyValue.h"
#include "VerdoDriverCore/Values/Url.h"

#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>
#include <signal.h>

namespace verdo {

struct DriverRunner::Hello {
  int maxJobs = 1;
  double idleClose = 0;       // seconds
  double reapInterval = 0;    // seconds
  double cleanupTimeout = 0;  // seconds
  SpacePattern spacePattern;
};

namespace {

// What holds when the service says nothing.
constexpr int kLanes = 3;
constexpr double kIdleClose = 600;
constexpr double kReapInterval = 60;
constexpr double kCleanupTimeout = 45;

constexpr std::int64_t kMostLanes = 1000;

std::string howToGive(const char* variable, const std::string& envFile) {
  return fmt::format("export {0}=..., or put {0}=... in {1} (chmod 600). Issue one in the UI.",
                     variable, envFile);
}

/// A positive number of seconds from the service, or the default.
double secondsOr(const JV* value, double fallback) {
  const auto number = value ? value->number() : std::nullopt;
  return number && *number > 0 ? *number : fallback;
}

std::string shown(const JV* value) { return pyStr(value).value_or("?"); }

SpacePattern spacePatternOf(const JV& reply, LogSink& log) {
  const auto pattern = pyStrIfTruthy(reply.find("space_pattern"));
  if (!pattern) return SpacePattern();
  try {
    return SpacePattern(*pattern);
  } catch (const PyError& error) {
    log.warn(fmt::format("space_pattern of the server is unusable ({}) — using the default",
                         error.what()));
    return SpacePattern();
  }
}

}  // namespace

DriverRunner::DriverRunner(DriverConfig config, std::shared_ptr<LogSink> log,
                           std::weak_ptr<DriverObserver> observer, Timings timings)
    : config_(std::move(config)),
      log_(std::move(log)),
      observer_(std::move(observer)),
      timings_(timings) {}

DriverRunner::~DriverRunner() = default;

ExitReason DriverRunner::run() {
  ExitReason reason = ExitReason::stopped();
  try {
    reason = runImpl();
  } catch (const std::exception& error) {
    reason = ExitReason::serverUnreachable(pyDescribe(error));
  }
  MutexLock lock(lock_);
  driver_.reset();
  api_.reset();
  return reason;
}

ExitReason DriverRunner::runImpl() {
  ::signal(SIGPIPE, SIG_IGN);
  const std::string envFile = config_.envFilePath.value_or(DriverConstants::envFile());
  std::string server = config_.server.empty() ? DriverConstants::defaultServer : config_.server;
  server = withoutTrailingSlashes(std::move(server));
  if (config_.llmBase.empty()) config_.llmBase = DriverConstants::llmDefaultBase;
  config_.llmBase = withoutTrailingSlashes(std::move(config_.llmBase));

  if (config_.token.empty()) {
    return ExitReason::badConfig("no driver token: " +
                                 howToGive(DriverConstants::tokenEnv, envFile));
  }
  if (const auto refusal = ServerURLPolicy::refusal(server, config_.insecure)) {
    return ExitReason::badConfig(*refusal);
  }
  std::vector<std::string> argv;
  try {
    argv = Shlex::split(config_.execCommand);
  } catch (const Shlex::Error& error) {
    return ExitReason::noExecutor(fmt::format("executor command `{}` cannot be split: {}",
                                              config_.execCommand, error.what()));
  }
  const auto execPath =
      argv.empty() ? std::nullopt : Which::find(argv.front(), config_.extraPathDirs);
  if (!execPath) {
    const bool nameless = argv.empty() || argv.front().empty();
    return ExitReason::noExecutor("executor not found: " +
                                  (nameless ? std::string("(empty)") : argv.front()));
  }

  std::shared_ptr<Api> api;
  try {
    api = makeApi(server);
  } catch (const PyError& error) {
    return ExitReason::badConfig(pyDescribe(error));
  }
  {
    MutexLock lock(lock_);
    api_ = api;
    if (stopRequested_) api->cancelAll();
  }
  Hello hello;
  if (const auto ended = sayHello(*api, hello)) {
    return isStopRequested() ? ExitReason::stopped() : *ended;
  }
  if (const auto ended = checkKey(envFile)) {
    return isStopRequested() ? ExitReason::stopped() : *ended;
  }

  const auto driver = makeDriver(hello, api, argv, *execPath);
  if (config_.dryRun) {
    log_->warn("dry run — not serving jobs");
    return ExitReason::clean();
  }
  {
    MutexLock lock(lock_);
    driver_ = driver;
  }
  if (isStopRequested()) {
    log_->warn("stopped");
    return ExitReason::stopped();
  }
  StagingDirectory::removeAbandoned();
  if (!config_.noSweep) driver->sweepSpaces(config_.sweepAll);
  log_->info(fmt::format("serving up to {} job(s) at once — ctrl-c to stop", hello.maxJobs));
  const auto idleExit =
      config_.idleExit ? std::optional(fromSeconds(*config_.idleExit)) : std::nullopt;
  switch (driver->serve(config_.serveJobs, idleExit)) {
    case 0:
      return ExitReason::clean();
    case 3:
      return ExitReason::tokenRevoked(DriverConstants::tokenRevokedMessage);
    case 6:
      return ExitReason::outOfDate(DriverConstants::outOfDateHint);
    default:
      return ExitReason::stopped();
  }
}

std::shared_ptr<Api> DriverRunner::makeApi(const std::string& server) {
  HttpSession::Options session;
  session.pingTimeout = timings_.pingTimeout;
  if (config_.caCertPath) session.caCertificates = loadCertificates(*config_.caCertPath);
  Api::Options options;
  options.base = server;
  options.token = config_.token;
  options.clientHeader = config_.clientHeader;
  options.timings = timings_;
  // The key itself stays here.
  const bool hasKey = !config_.llmKey.empty();
  options.llmInfo =
      JV::Object{{"present", hasKey},
                 {"last4", hasKey ? JV(DriverConstants::lastFour(config_.llmKey)) : JV()},
                 {"base_url", config_.llmBase}};
  return std::make_shared<Api>(std::move(options), std::make_shared<HttpSession>(session));
}

/// Reads the hello. Gives the reason when the run ends there.
std::optional<ExitReason> DriverRunner::sayHello(Api& api, Hello& hello) {
  JV reply;
  try {
    reply = api.hello();
  } catch (const ServerError& error) {
    switch (error.kind()) {
      case ServerError::Kind::auth:
        return ExitReason::tokenRevoked(fmt::format("token rejected: {}", error.what()));
      case ServerError::Kind::outOfDate:
        return ExitReason::outOfDate(
            fmt::format("{}\n{}", error.what(), DriverConstants::outOfDateHint));
      case ServerError::Kind::server:
        break;
    }
    return ExitReason::serverUnreachable(error.what());
  }

  const JV* protocolValue = reply.find("protocol");
  const auto protocol = pyInt(protocolValue);
  if (!protocol) {
    return ExitReason::serverUnreachable("ValueError: invalid literal for int(): " +
                                         pyStr(protocolValue).value_or("None"));
  }
  if (*protocol != DRIVER_PROTOCOL) {
    return ExitReason::outOfDate(
        fmt::format("server speaks driver protocol {}, this driver speaks {} — {}", *protocol,
                    DRIVER_PROTOCOL, DriverConstants::outOfDateHint));
  }

  const JV* user = reply.find("user");
  const JV* username = user ? user->find("username") : nullptr;
  const JV* userId = user ? user->find("id") : nullptr;
  const std::string version = shown(reply.find("driver_version"));
  log_->success(fmt::format("{} (user {}) · driver v{}", shown(username), shown(userId), version));
  if (const auto observer = observer_.lock()) {
    observer->driverConnected(shown(username), pyInt(userId).value_or(0), version);
  }

  const auto offered = pyInt(reply.find("max_jobs")).value_or(kLanes);
  hello.maxJobs = config_.maxJobs.value_or(0) != 0
                      ? *config_.maxJobs
                      : static_cast<int>(std::clamp<std::int64_t>(offered, 1, kMostLanes));
  hello.idleClose =
      config_.idleClose.value_or(secondsOr(reply.find("idle_close_seconds"), kIdleClose));
  hello.reapInterval =
      config_.reapInterval.value_or(secondsOr(reply.find("reap_interval_seconds"), kReapInterval));
  hello.cleanupTimeout = secondsOr(reply.find("cleanup_timeout_seconds"), kCleanupTimeout);
  hello.spacePattern = spacePatternOf(reply, *log_);
  return std::nullopt;
}

/// Looks after the LLM key. Gives the reason when the run ends there.
std::optional<ExitReason> DriverRunner::checkKey(const std::string& envFile) {
  if (!config_.llmKey.empty()) return config_.checkLLM ? validateKey() : std::nullopt;
  if (config_.checkLLM) {
    return ExitReason::badConfig("--check-llm: no LLM key — " +
                                 howToGive(DriverConstants::llmKeyEnv, envFile));
  }
  log_->warn(
      "llm key  : none — browser jobs only (enrich/apply stay off until a key is installed)");
  return std::nullopt;
}

/// Asks the provider about the key. Gives the reason when the run ends there; a provider that
/// cannot be asked does not end it.
std::optional<ExitReason> DriverRunner::validateKey() {
  const std::string host = hostname(config_.llmBase);
  const std::string last = DriverConstants::lastFour(config_.llmKey);
  std::optional<std::string> problem;
  try {
    const auto client = std::make_shared<ChatClient>(
        config_.llmKey, config_.llmBase, [](const std::string&) {},
        std::make_shared<HttpSession>());
    {
      MutexLock lock(lock_);
      keyCheck_ = client;
      if (stopRequested_) client->cancel();
    }
    problem = client->validate();
  } catch (const PyError& error) {
    problem = error.what();
  }
  if (problem == "rejected") {
    return ExitReason::llmKeyRejected(
        fmt::format("the LLM provider at {} rejected the key …{}", host, last));
  }
  if (problem) {
    log_->warn(fmt::format("could not validate the LLM key against {}: {}", host, *problem));
  } else {
    log_->success(fmt::format("llm key  : …{} accepted by {}", last, host));
  }
  return std::nullopt;
}

std::shared_ptr<Driver> DriverRunner::makeDriver(const Hello& hello, std::shared_ptr<Api> api,
                                                 const std::vector<std::string>& argv,
                                                 const std::string& execPath) {
  ExecutorCommand command{execPath, argv, childEnvironment(execPath, config_.extraPathDirs)};
  auto browser = std::make_shared<Browser>(std::move(command), fromSeconds(hello.cleanupTimeout),
                                           log_, timings_);
  Driver::Options options;
  options.maxJobs = hello.maxJobs;
  options.pollWait = config_.pollWait;
  options.llmKey = config_.llmKey;
  options.llmBase = config_.llmBase;
  options.idleClose = fromSeconds(hello.idleClose);
  options.reapInterval = fromSeconds(hello.reapInterval);
  options.spacePattern = hello.spacePattern;
  options.timings = timings_;
  return std::make_shared<Driver>(std::move(options), std::move(api), log_, std::move(browser),
                                  observer_);
}

bool DriverRunner::isStopRequested() {
  MutexLock lock(lock_);
  return stopRequested_;
}

void DriverRunner::stop() {
  std::shared_ptr<Driver> driver;
  std::shared_ptr<Api> api;
  std::shared_ptr<ChatClient> keyCheck;
  {
    MutexLock lock(lock_);
    stopRequested_ = true;
    driver = driver_;
    api = api_;
    keyCheck = keyCheck_;
  }
  log_->warn("stopping — killing jobs and closing their tabs");
  if (driver) driver->stop();
  if (api) api->cancelAll();
  if (keyCheck) keyCheck->cancel();
}

void DriverRunner::networkChanged() {
  std::shared_ptr<Api> api;
  {
    MutexLock lock(lock_);
    api = api_;
  }
  if (api) api->networkChanged();
}

void DriverRunner::killJobsNow() {
  std::shared_ptr<Driver> driver;
  {
    MutexLock lock(lock_);
    driver = driver_;
  }
  if (driver) driver->killJobsNow();
}

std::string DriverRunner::hostname(const std::string& url) {
  const auto parsed = Url::parse(url);
  return parsed ? parsed->host() : url;
}

Environment DriverRunner::childEnvironment(const std::string& execPath,
                                           const std::vector<std::string>& extraPathDirs) {
  Environment environment = currentEnvironment();
  environment.erase(DriverConstants::tokenEnv);
  environment.erase(DriverConstants::llmKeyEnv);
  std::vector<std::string> pieces;
  const auto add = [&](const std::string& piece) {
    const bool known = std::find(pieces.begin(), pieces.end(), piece) != pieces.end();
    if (!piece.empty() && !known) pieces.push_back(piece);
  };
  const auto slash = execPath.rfind('/');
  add(slash == std::string::npos ? "" : execPath.substr(0, slash));
  for (const auto& directory : extraPathDirs) add(directory);
  const auto path = environment.find("PATH");
  pieces.push_back(path == environment.end() ? Which::kDefaultPath : path->second);
  environment["PATH"] = fmt::format("{}", fmt::join(pieces, ":"));
  return environment;
}

}  // namespace verdo
