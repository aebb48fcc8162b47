#include "VerdoDriverCore/Run/Runner.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Secrets.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Process/GroupRecord.h"
#include "VerdoDriverCore/Run/Driver.h"
#include "VerdoDriverCore/Run/Preparation.h"
#include "VerdoDriverCore/Run/SpaceClaim.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <fmt/format.h>
#include <signal.h>

namespace verdo {

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
  if (const auto refused = settleConfig(envFile)) return *refused;
  auto executor = findExecutor(config_);
  if (const auto* missing = std::get_if<ExitReason>(&executor)) return *missing;

  std::shared_ptr<Api> api;
  try {
    api = makeApi(config_, timings_);
  } catch (const PyError& error) {
    return ExitReason::badConfig(pyDescribe(error));
  }
  {
    MutexLock lock(lock_);
    api_ = api;
    if (stopRequested_) api->cancelAll();
  }
  auto answer = sayHello(*api);
  if (const auto* ended = std::get_if<ExitReason>(&answer)) {
    return isStopRequested() ? ExitReason::stopped() : *ended;
  }
  if (const auto ended = checkKey(envFile)) {
    return isStopRequested() ? ExitReason::stopped() : *ended;
  }

  if (config_.dryRun) {
    log_->warn("dry run — not serving jobs");
    return ExitReason::clean();
  }
  return serve(std::get<Hello>(answer), std::move(api),
               std::get<ExecutorCommand>(std::move(executor)));
}

/// Fills in what the configuration leaves open. Gives the reason when nothing can run with it.
std::optional<ExitReason> DriverRunner::settleConfig(const std::string& envFile) {
  settleAddresses(config_);
  if (config_.token.empty()) {
    return ExitReason::badConfig("no driver token: " +
                                 howToGive(DriverConstants::tokenEnv, envFile));
  }
  const std::pair<const char*, const std::string&> secrets[] = {
      {DriverConstants::tokenEnv, config_.token}, {DriverConstants::llmKeyEnv, config_.llmKey}};
  for (const auto& [name, secret] : secrets) {
    if (const auto refusal = secretRefusal(name, secret)) return ExitReason::badConfig(*refusal);
  }
  if (const auto refusal = ServerURLPolicy::refusal(config_.server, config_.insecure)) {
    return ExitReason::badConfig(*refusal);
  }
  if (const auto refusal = ServerURLPolicy::pathRefusal(config_.server)) {
    return ExitReason::badConfig(*refusal);
  }
  if (const auto refusal = ServerURLPolicy::providerRefusal(config_.llmBase)) {
    return ExitReason::badConfig(*refusal);
  }
  return std::nullopt;
}

/// Serves jobs until the run ends, the task spaces that an earlier run left swept first.
ExitReason DriverRunner::serve(const Hello& hello, std::shared_ptr<Api> api,
                               ExecutorCommand executor) {
  const auto driver = makeDriver(hello, std::move(api), std::move(executor));
  {
    MutexLock lock(lock_);
    driver_ = driver;
  }
  if (isStopRequested()) {
    log_->warn("stopped");
    return ExitReason::stopped();
  }
  endAbandonedJobs();
  StagingDirectory::removeAbandoned();
  if (!config_.noSweep) {
    driver->sweepSpaces(config_.sweepAll ? TaskSpaces::Sweep::everything : TaskSpaces::Sweep::own);
    if (isStopRequested()) {
      log_->warn("stopped");
      return ExitReason::stopped();
    }
  }
  log_->info(fmt::format("serving up to {} job(s) at once — ctrl-c to stop", hello.maxJobs));
  const auto idleExit =
      config_.idleExit ? std::optional(fromSeconds(*config_.idleExit)) : std::nullopt;
  hasServed_ = true;
  return driver->serve(config_.serveJobs, idleExit);
}

/// Ends what is left of the jobs of a driver that crashed: they work for nobody, in a browser that
/// this run is about to use.
void DriverRunner::endAbandonedJobs() {
  for (const pid_t group : GroupRecord::endAbandoned(StagingDirectory::defaultCache())) {
    log_->warn(fmt::format("ended process group {}, left by a driver that crashed", group));
  }
}

/// Says hello and tells what came of it; or gives the reason when the run ends there.
std::variant<Hello, ExitReason> DriverRunner::sayHello(Api& api) {
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
  auto answer = Hello::from(reply, config_);
  if (const auto* hello = std::get_if<Hello>(&answer)) {
    log_->success(forLog(fmt::format("{} (user {}) · driver v{}", hello->username,
                                     hello->userIdText, hello->serverVersion)));
    if (const auto observer = observer_.lock()) {
      observer->driverConnected(hello->username, hello->userId, hello->serverVersion);
    }
    if (hello->patternDefect) {
      log_->warn(fmt::format("space_pattern of the server is unusable ({}) — using the default",
                             forLog(*hello->patternDefect)));
    }
  }
  return answer;
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
  KeyCheck check;
  try {
    const auto client = makeKeyCheck(config_, timings_);
    {
      MutexLock lock(lock_);
      keyCheck_ = client;
      if (stopRequested_) client->cancel();
    }
    check = client->validate();
  } catch (const PyError& error) {
    check = {KeyCheck::Verdict::unreachable, error.what()};
  }
  {
    MutexLock lock(lock_);
    keyCheck_.reset();  // and with it its session's thread and connection
  }
  switch (check.verdict) {
    case KeyCheck::Verdict::rejected:
      return ExitReason::llmKeyRejected(
          fmt::format("the LLM provider at {} rejected the key …{}", host, last));
    case KeyCheck::Verdict::unreachable:
      log_->warn(
          fmt::format("could not validate the LLM key against {}: {}", host, forLog(check.reason)));
      break;
    case KeyCheck::Verdict::accepted:
      log_->success(fmt::format("llm key  : …{} accepted by {}", last, host));
  }
  return std::nullopt;
}

std::shared_ptr<Driver> DriverRunner::makeDriver(const Hello& hello, std::shared_ptr<Api> api,
                                                 ExecutorCommand executor) {
  const std::string cache = StagingDirectory::defaultCache();
  auto browser = std::make_shared<Browser>(std::move(executor), fromSeconds(hello.cleanupTimeout),
                                           log_, timings_, std::make_shared<GroupRecord>(cache));
  Driver::Options options;
  options.maxJobs = hello.maxJobs;
  options.pollWait = config_.pollWait;
  options.llmKey = config_.llmKey;
  options.llmBase = config_.llmBase;
  if (!config_.llmKey.empty()) {
    options.providerSession = sessionFor(config_, config_.llmBase, timings_);
  }
  options.spaces = {fromSeconds(hello.idleClose), fromSeconds(hello.reapInterval),
                    hello.spacePattern, timings_};
  options.timings = timings_;
  const auto tellHolder = [log = log_, observer = observer_](const std::string& holder) {
    if (holder.empty()) {
      log->info("looking after this user's task spaces from now on");
    } else {
      log->warn(
          fmt::format("another driver ({}) looks after this user's task spaces — leaving all "
                      "but those of our own jobs alone",
                      holder));
    }
    if (const auto listener = observer.lock()) listener->driverSharesSpaces(holder);
  };
  auto claim = std::make_unique<SpaceClaim>(cache, config_.server, hello.userId, tellHolder);
  return std::make_shared<Driver>(std::move(options), std::move(api), log_, std::move(browser),
                                  std::move(claim), observer_);
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
  return parsed ? parsed->host() : withoutUserInfo(url);
}

}  // namespace verdo
