#include "LocalService/LocalService.h"

#include "LocalService/ControlEndpoints.h"
#include "LocalService/Dispatcher.h"
#include "LocalService/DriverEndpoints.h"
#include "LocalService/Faults.h"
#include "LocalService/FileEndpoints.h"
#include "LocalService/FileStore.h"
#include "LocalService/JobStore.h"
#include "LocalService/ManifestEndpoints.h"
#include "LocalService/PairingEndpoints.h"
#include "LocalService/PairingStore.h"
#include "LocalService/ProviderEndpoints.h"
#include "LocalService/ProviderRules.h"
#include "LocalService/Random.h"
#include "LocalService/RequestLog.h"
#include "LocalService/Server.h"
#include "LocalService/Sha256.h"
#include "LocalService/Tls.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace verdo::local {
namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::ordered_json;

std::string randomToken() { return "vdt_" + hex(randomBytes(24)); }

Clock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
  return Clock::now() + std::min<std::chrono::milliseconds>(timeout, std::chrono::hours(24));
}

ordered_json jobObject(std::int64_t id, const JobSpec& spec) {
  ordered_json object{{"job_id", id}};
  if (!spec.label.empty()) object["label"] = spec.label;
  object["kind"] = spec.kind;
  object["payload"] = spec.payload;
  if (spec.taskSpace) object["task_space"] = *spec.taskSpace;
  return object;
}

}  // namespace

struct LocalService::Impl {
  Impl(LocalService& service, LocalServiceOptions given)
      : options(std::move(given)),
        faults(options.seed),
        jobs(options.lease),
        settings(options.token.empty() ? randomToken() : options.token),
        files(options.filesDirectory),
        dispatcher(faults, log, hang),
        server(dispatcher, hang),
        driverEndpoints(jobs, settings, hang),
        fileEndpoints(files),
        providerEndpoints(providerRules, options.providerKey),
        pairingEndpoints(pairings, settings),
        controlEndpoints(service, files) {
    dispatcher.addRoutes(driverEndpoints);
    dispatcher.addRoutes(fileEndpoints);
    dispatcher.addRoutes(providerEndpoints);
    dispatcher.addRoutes(pairingEndpoints);
    dispatcher.addRoutes(manifestEndpoints);
    dispatcher.addRoutes(controlEndpoints);
  }

  const LocalServiceOptions options;
  Faults faults;
  RequestLog log;
  JobStore jobs;
  DriverSettings settings;
  FileStore files;
  ProviderRules providerRules;
  PairingStore pairings;
  HangGate hang;
  Dispatcher dispatcher;
  Server server;
  DriverEndpoints driverEndpoints;
  FileEndpoints fileEndpoints;
  ProviderEndpoints providerEndpoints;
  PairingEndpoints pairingEndpoints;
  ManifestEndpoints manifestEndpoints;
  ControlEndpoints controlEndpoints;
};

LocalService::LocalService(LocalServiceOptions options)
    : impl_(std::make_unique<Impl>(*this, std::move(options))) {}

LocalService::~LocalService() { stop(); }

void LocalService::start() {
  const auto& options = impl_->options;
  if (options.certificate.empty() != options.privateKey.empty()) {
    throw std::runtime_error("TLS needs both a certificate and its private key");
  }
  auto tls = options.certificate.empty()
                 ? nullptr
                 : makeServerContext(options.certificate, options.privateKey);
  impl_->jobs.resume();
  impl_->log.resume();
  impl_->pairings.resume();
  // Started again, it is where it was.
  impl_->server.start(port() != 0 ? port() : options.port, std::move(tls));
}

void LocalService::stop() {
  impl_->jobs.interrupt();
  impl_->log.interrupt();
  impl_->pairings.interrupt();
  impl_->server.stop();
}

std::uint16_t LocalService::port() const { return impl_->server.port(); }

std::string LocalService::url() const {
  return (impl_->options.certificate.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") +
         std::to_string(port());
}

std::string LocalService::token() const { return impl_->settings.token(); }

std::int64_t LocalService::addJob(JobSpec spec) {
  const auto id = impl_->jobs.reserveId();
  auto object = jobObject(id, spec);
  for (auto& file : spec.files) {
    ordered_json entry{{"name", file.name}};
    const auto sum = file.sha256 ? *file.sha256 : sha256Hex(file.content);
    const auto announced = file.url;
    const auto absolute = file.absoluteUrl;
    const auto omitUrl = file.omitUrl;
    const auto omitSha256 = file.omitSha256;
    const auto path = impl_->files.publish(std::move(file), id);
    if (!omitUrl) entry["url"] = announced ? *announced : (absolute ? url() : "") + path;
    if (!omitSha256) entry["sha256"] = sum;
    object["files"].push_back(std::move(entry));
  }
  for (const auto& [key, value] : spec.extra.items()) object[key] = value;
  impl_->jobs.add(id, spec, object);
  return id;
}

std::optional<JobSnapshot> LocalService::job(std::int64_t id) const { return impl_->jobs.job(id); }

std::vector<JobSnapshot> LocalService::jobs() const { return impl_->jobs.jobs(); }

std::vector<std::string> LocalService::lines(std::int64_t id, std::size_t from,
                                             std::size_t limit) const {
  const auto log = impl_->jobs.lineLog(id);
  return log ? log->lines(from, limit) : std::vector<std::string>();
}

bool LocalService::cancelJob(std::int64_t id) { return impl_->jobs.cancel(id); }

bool LocalService::waitFor(std::int64_t id, JobState state, Milliseconds timeout) const {
  return waitFor(
      id,
      [state](const JobSnapshot& job) {
        return job.state == state || (state == JobState::leased && job.state == JobState::done);
      },
      timeout);
}

bool LocalService::waitFor(std::int64_t id,
                           const std::function<bool(const JobSnapshot&)>& predicate,
                           Milliseconds timeout) const {
  const auto holds = [&] {
    const auto snapshot = job(id);
    return snapshot && predicate(*snapshot);
  };
  return impl_->jobs.waitUntil(holds, deadlineAfter(timeout));
}

bool LocalService::waitForLine(std::int64_t id, const std::string& text,
                               Milliseconds timeout) const {
  const auto log = impl_->jobs.lineLog(id);
  std::size_t from = 0;
  return log &&
         impl_->jobs.waitUntil([&] { return log->contains(text, from); }, deadlineAfter(timeout));
}

bool LocalService::waitForAllDone(Milliseconds timeout) const {
  return impl_->jobs.waitUntil([&] { return impl_->jobs.allDone(); }, deadlineAfter(timeout));
}

void LocalService::setLease(Milliseconds lease) { impl_->jobs.setLease(lease); }

std::string LocalService::addFile(FileSpec file) { return impl_->files.publish(std::move(file)); }

ordered_json LocalService::hello() const { return impl_->settings.hello(); }

void LocalService::setHello(ordered_json reply) { impl_->settings.setHello(std::move(reply)); }

void LocalService::patchHello(const ordered_json& patch) { impl_->settings.patchHello(patch); }

void LocalService::revokeToken() { impl_->settings.revokeToken(); }

void LocalService::setToken(std::string token) { impl_->settings.setToken(std::move(token)); }

std::string LocalService::providerUrl() const {
  return url() + std::string(ProviderEndpoints::kPrefix);
}

const std::string& LocalService::providerKey() const { return impl_->options.providerKey; }

std::uint64_t LocalService::addProviderRule(ProviderRule rule) {
  return impl_->providerRules.add(std::move(rule));
}

std::vector<ProviderRuleStatus> LocalService::providerRules() const {
  return impl_->providerRules.list();
}

void LocalService::clearProviderRules() { impl_->providerRules.clear(); }

void LocalService::setPairingRules(PairingRules rules) {
  impl_->pairings.setRules(std::move(rules));
}

std::vector<PairingSnapshot> LocalService::pairings() const { return impl_->pairings.list(); }

std::optional<PairingSnapshot> LocalService::waitForPairing(std::size_t n,
                                                            Milliseconds timeout) const {
  return impl_->pairings.waitFor(n, deadlineAfter(timeout));
}

bool LocalService::decidePairing(const std::string& userCode, bool approve) {
  return impl_->pairings.decide(userCode, approve ? PairingState::approved : PairingState::denied);
}

bool LocalService::expirePairing(const std::string& userCode) {
  return impl_->pairings.decide(userCode, PairingState::expired);
}

ordered_json LocalService::manifest() const { return impl_->manifestEndpoints.manifest(); }

void LocalService::setManifest(ordered_json manifest) {
  impl_->manifestEndpoints.setManifest(std::move(manifest));
}

void LocalService::patchManifest(const ordered_json& patch) {
  impl_->manifestEndpoints.patchManifest(patch);
}

std::uint64_t LocalService::addFault(Fault fault) { return impl_->faults.add(std::move(fault)); }

std::uint64_t LocalService::faultHits(std::uint64_t id) const { return impl_->faults.hits(id); }

std::vector<FaultStatus> LocalService::faults() const { return impl_->faults.list(); }

bool LocalService::clearFault(std::uint64_t id) { return impl_->faults.clear(id); }

void LocalService::clearFaults() { impl_->faults.clearAll(); }

void LocalService::outage(OutageKind kind, Milliseconds duration) {
  impl_->server.outage(kind, duration);
}

void LocalService::endOutage() { impl_->server.endOutage(); }

std::vector<RequestRecord> LocalService::requests(const std::string& endpoint) const {
  return impl_->log.requests(endpoint);
}

std::uint64_t LocalService::requestCount(const std::string& endpoint) const {
  return impl_->log.count(endpoint);
}

std::optional<RequestRecord> LocalService::waitForRequest(const std::string& endpoint,
                                                          std::uint64_t n,
                                                          Milliseconds timeout) const {
  return impl_->log.waitForRequest(endpoint, n, deadlineAfter(timeout));
}

std::optional<RequestRecord> LocalService::waitForReply(const std::string& endpoint,
                                                        std::uint64_t n,
                                                        Milliseconds timeout) const {
  return impl_->log.waitForReply(endpoint, n, deadlineAfter(timeout));
}

bool LocalService::waitForHangUps(const std::string& endpoint, std::uint64_t n,
                                  Milliseconds timeout) const {
  return impl_->log.waitForHangUps(endpoint, n, deadlineAfter(timeout));
}

std::uint64_t LocalService::inFlight(const std::string& endpoint) const {
  return impl_->log.inFlight(endpoint);
}

std::uint64_t LocalService::maxInFlight(const std::string& endpoint) const {
  return impl_->log.maxInFlight(endpoint);
}

void LocalService::clearRequests() { impl_->log.clear(); }

std::uint64_t LocalService::acceptedConnections() const {
  return impl_->server.acceptedConnections();
}

std::uint64_t LocalService::openConnections() const { return impl_->server.openConnections(); }

bool LocalService::waitForConnections(std::uint64_t atMost, Milliseconds timeout) const {
  return impl_->server.waitForConnections(atMost, deadlineAfter(timeout));
}

void LocalService::reset() {
  endOutage();
  clearFaults();
  clearProviderRules();
  impl_->jobs.clear();
  impl_->files.clear();
  impl_->settings.setHello(DriverSettings::defaultHello());
  impl_->pairings.clear();
  setManifest(ManifestEndpoints::defaultManifest());
  clearRequests();
}

}  // namespace verdo::local
