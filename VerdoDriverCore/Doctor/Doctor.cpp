#include "VerdoDriverCore/Doctor/Doctor.h"

#include "VerdoDriverCore/Contract/SecretScrub.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Doctor/LocalChecks.h"
#include "VerdoDriverCore/Doctor/Route.h"
#include "VerdoDriverCore/Doctor/ServiceChecks.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Run/Preparation.h"

#include <algorithm>

#include <signal.h>

namespace verdo {
namespace {

constexpr const char* kStopped = "stopped";

void skipRoute(const Doctor::OnFinding& add, const std::string& why) {
  for (const auto& check : routeChecks()) add(Finding::skipped(check, why));
}

}  // namespace

Doctor::Doctor(Options options)
    : options_(std::move(options)), trace_(std::make_shared<HttpTrace>()) {
  settleAddresses(options_.config);
  if (options_.cache.empty()) options_.cache = StagingDirectory::defaultCache();
}

Doctor::~Doctor() = default;

std::vector<Finding> Doctor::run(const OnFinding& onFinding) {
  ::signal(SIGPIPE, SIG_IGN);
  std::vector<Finding> findings;
  const SecretScrub scrub{options_.config.token, options_.config.llmKey};
  const auto add = [&](Finding finding) {
    if (isStopped()) finding = Finding::skipped(finding.check, kStopped);
    finding.detail = scrub.scrubbed(finding.detail);
    findings.push_back(std::move(finding));
    if (onFinding) onFinding(findings.back());
  };
  const auto addUnlessStopped = [&](const char* name, const std::function<Finding()>& check) {
    add(isStopped() ? Finding::skipped(name, kStopped) : check());
  };
  add(configuration());
  examineService(add);
  addUnlessStopped("executor", [this] {
    return checkExecutor(options_.config, options_.executorTimeout, options_.timings, interrupted_,
                         options_.remedies);
  });
  addUnlessStopped(kKeyCheck, [this] { return key(); });
  if (options_.secretStore) addUnlessStopped("secret store", options_.secretStore);
  addUnlessStopped("disk", [this] { return checkCache(options_.cache, options_.minFreeSpace); });
  if (options_.thorough) {
    const auto addIfServed = [&](const char* name, const std::function<Finding()>& check) {
      if (!hasService_) return add(Finding::skipped(name, "the hello has failed"));
      addUnlessStopped(name, check);
    };
    std::shared_ptr<Api> api;
    {
      MutexLock lock(lock_);
      api = api_;
    }
    addIfServed(kPollCheck, [&] { return checkLongPoll(*api, *trace_, options_.config.pollWait); });
    addIfServed(kBodyCheck, [&] { return checkLargeBodies(*api, *trace_); });
  }
  MutexLock lock(lock_);
  api_.reset();
  return findings;
}

Finding Doctor::configuration() const {
  if (options_.configurationDefect) return *options_.configurationDefect;
  return checkConfiguration(options_.config, options_.envFile, options_.remedies);
}

/// From the address to the hello, which is the only request: it shows the whole way, also without a
/// token.
void Doctor::examineService(const OnFinding& add) {
  const auto skipAll = [&](const std::string& why) {
    skipRoute(add, why);
    add(Finding::skipped(kHelloCheck, why));
  };
  if (options_.configurationDefect) {
    const std::string why = "the configuration is not known";
    add(Finding::skipped("server address", why));
    return skipAll(why);
  }
  const Finding address = checkAddress(options_.config, options_.remedies);
  add(address);
  if (address.hasFailed()) return skipAll("the server address is of no use");
  std::shared_ptr<Api> api;
  try {
    api = makeApi(options_.config, options_.timings, trace_);
  } catch (const PyError&) {
    // The check of the configuration has told.
    return skipAll("the CA file is of no use");
  }
  {
    MutexLock lock(lock_);
    api_ = api;
    if (isStopped()) api->cancelAll();
  }
  examineReply(add, *api);
}

void Doctor::examineReply(const OnFinding& add, Api& api) {
  const auto hello = checkHello(api, *trace_, options_.config, options_.remedies);
  if (trace_->stage == HttpTrace::Stage::preparing) {
    skipRoute(add, "the request could not be made");
    add(Finding::failed(kHelloCheck, "the request could not be made", options_.remedies.values,
                        hello.failure));
    return;
  }
  const auto route = examineRoute({*trace_, *Url::parse(options_.config.server), hello.failure,
                                   options_.config.caCertPath.has_value(),
                                   std::chrono::system_clock::now(), options_.remedies});
  for (const auto& finding : route) add(finding);
  const auto broken = std::find_if(route.begin(), route.end(),
                                   [](const Finding& finding) { return finding.hasFailed(); });
  if (broken != route.end()) {
    add(Finding::skipped(kHelloCheck, broken->check + " has failed"));
  } else if (options_.config.token.empty()) {
    add(Finding::skipped(kHelloCheck, "there is no driver token"));
  } else {
    add(hello.finding);
    hasService_ = !hello.finding.hasFailed();
  }
}

Finding Doctor::key() {
  if (options_.configurationDefect) {
    return Finding::skipped(kKeyCheck, "the configuration is not known");
  }
  if (options_.config.llmKey.empty()) {
    return Finding::skipped(kKeyCheck, "there is none, so this driver does browser jobs only");
  }
  const std::string& remedy = options_.remedies.provider;
  if (const auto refusal = ServerURLPolicy::providerRefusal(options_.config.llmBase)) {
    return Finding::failed(kKeyCheck, *refusal, remedy);
  }
  std::shared_ptr<ChatClient> client;
  try {
    client = makeKeyCheck(options_.config, options_.timings);
  } catch (const PyError& error) {
    return Finding::failed(kKeyCheck, "the provider's address is of no use", remedy, error.what());
  }
  {
    MutexLock lock(lock_);
    keyCheck_ = client;
    if (isStopped()) client->cancel();
  }
  auto finding = checkKey(*client, options_.config, options_.remedies);
  MutexLock lock(lock_);
  keyCheck_.reset();
  return finding;
}

void Doctor::stop() {
  interrupted_.set();
  std::shared_ptr<Api> api;
  std::shared_ptr<ChatClient> keyCheck;
  {
    MutexLock lock(lock_);
    api = api_;
    keyCheck = keyCheck_;
  }
  if (api) api->cancelAll();
  if (keyCheck) keyCheck->cancel();
}

bool Doctor::isHealthy(const std::vector<Finding>& findings) {
  return std::none_of(findings.begin(), findings.end(),
                      [](const Finding& finding) { return finding.hasFailed(); });
}

}  // namespace verdo
