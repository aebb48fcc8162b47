#include "LocalService/LocalService.h"

#include "LocalService/ControlEndpoints.h"
#include "LocalService/Dispatcher.h"
#include "LocalService/DriverEndpoints.h"
#include "LocalService/FileEndpoints.h"
#include "LocalService/JobStore.h"
#include "LocalService/ManifestEndpoints.h"
#include "LocalService/PairingEndpoints.h"
#include "LocalService/ProviderEndpoints.h"
#include "LocalService/Secret.h"
#include "LocalService/Server.h"
#include "LocalService/Tls.h"

#include <stdexcept>
#include <utility>

namespace verdo::local {

struct LocalService::Impl {
  Impl(LocalService& service, LocalServiceOptions given)
      : options(std::move(given)),
        faults(options.seed),
        requests(options.requestLog),
        jobStore(options.lease),
        token(options.token.empty() ? randomSecret("vdt_") : options.token),
        files(options.filesDirectory),
        jobs(jobStore, files, [&service] { return service.url(); }),
        dispatcher(faults, requests, hang),
        server(dispatcher, hang),
        driverEndpoints(jobStore, token, hello, hang),
        fileEndpoints(files),
        providerEndpoints(providerRules, options.providerKey),
        pairingEndpoints(pairings, token),
        manifestEndpoints(manifest),
        controlToken(options.controlToken.empty() ? randomSecret("vdc_") : options.controlToken),
        controlEndpoints(service, jobs, files, controlToken) {
    dispatcher.addRoutes(driverEndpoints);
    dispatcher.addRoutes(fileEndpoints);
    dispatcher.addRoutes(providerEndpoints);
    dispatcher.addRoutes(pairingEndpoints);
    dispatcher.addRoutes(manifestEndpoints);
    dispatcher.addRoutes(controlEndpoints);
  }

  const LocalServiceOptions options;
  Faults faults;
  RequestLog requests;
  JobStore jobStore;
  DriverToken token;
  JsonDocument hello{DriverEndpoints::defaultHello()};
  JsonDocument manifest{ManifestEndpoints::defaultManifest()};
  FileStore files;
  Jobs jobs;
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
  const std::string controlToken;
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
  impl_->jobStore.resume();
  impl_->requests.resume();
  impl_->pairings.resume();
  // Started again, it is where it was.
  impl_->server.start(port() != 0 ? port() : options.port, std::move(tls));
}

void LocalService::stop() {
  impl_->jobStore.interrupt();
  impl_->requests.interrupt();
  impl_->pairings.interrupt();
  impl_->server.stop();
}

std::uint16_t LocalService::port() const { return impl_->server.port(); }

std::string LocalService::url() const {
  return (impl_->options.certificate.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") +
         std::to_string(port());
}

std::string LocalService::token() const { return impl_->token.value(); }

std::string LocalService::providerUrl() const {
  return url() + std::string(ProviderEndpoints::kPrefix);
}

const std::string& LocalService::providerKey() const { return impl_->options.providerKey; }

const std::string& LocalService::controlToken() const { return impl_->controlToken; }

Jobs& LocalService::jobs() { return impl_->jobs; }

FileStore& LocalService::files() { return impl_->files; }

Faults& LocalService::faults() { return impl_->faults; }

RequestLog& LocalService::requests() { return impl_->requests; }

DriverToken& LocalService::driverToken() { return impl_->token; }

JsonDocument& LocalService::hello() { return impl_->hello; }

JsonDocument& LocalService::manifest() { return impl_->manifest; }

PairingStore& LocalService::pairings() { return impl_->pairings; }

ProviderRules& LocalService::provider() { return impl_->providerRules; }

void LocalService::outage(OutageKind kind, Milliseconds duration) {
  impl_->server.outage(kind, duration);
}

void LocalService::endOutage() { impl_->server.endOutage(); }

std::uint64_t LocalService::acceptedConnections() const {
  return impl_->server.acceptedConnections();
}

std::uint64_t LocalService::openConnections() const { return impl_->server.openConnections(); }

bool LocalService::waitForConnections(std::uint64_t atMost, Milliseconds timeout) const {
  return impl_->server.waitForConnections(atMost, timeout);
}

void LocalService::reset() {
  endOutage();
  faults().clearAll();
  provider().clear();
  impl_->jobStore.clear();
  files().clear();
  hello().reset();
  pairings().clear();
  manifest().reset();
  requests().clear();
}

}  // namespace verdo::local
