#pragma once

#include "LocalService/DriverToken.h"
#include "LocalService/Faults.h"
#include "LocalService/FileStore.h"
#include "LocalService/Jobs.h"
#include "LocalService/JsonDocument.h"
#include "LocalService/PairingStore.h"
#include "LocalService/ProviderRules.h"
#include "LocalService/RequestLog.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace verdo::local {

// NOLINTBEGIN(readability-redundant-member-init): lets callers name only the fields they set.
struct LocalServiceOptions {
  std::uint16_t port = 0;  ///< on 127.0.0.1; 0 picks a free one
  std::string token{};     ///< driver token; empty: a random one
  /// That the control interface asks for; empty: a random one.
  std::string controlToken{};
  /// Certificate chain and private key, PEM files; both (then the service speaks TLS) or neither.
  std::filesystem::path certificate{};
  std::filesystem::path privateKey{};
  /// A job whose driver is silent for so long is offered again. The web service uses 60 s.
  std::chrono::milliseconds lease{60'000};
  std::uint64_t seed = 1;  ///< of the generator behind Fault::probability
  /// Also hands out the files of this folder as /files/{name}; empty: none.
  std::filesystem::path filesDirectory{};
  std::string providerKey = "provider-key";  ///< that the LLM provider accepts; not empty
  RequestLogLimits requestLog{};
};
// NOLINTEND(readability-redundant-member-init)

/// A stand-in on loopback of the web service that the driver works for: jobs with real leases, job
/// files, and failures on demand. Many instances can live in one process, each on its own port.
///
/// Thread rule: every member may be called from any thread, start() and stop() from one at a time.
/// Times are steady_clock; every wait is bounded by the time-out it is given and ends early when
/// the service stops. The owner must outlive calls in progress. Waits return as soon as what they
/// wait for has happened; none of them polls. The stores that it gives live as long as it does.
///
/// Usage:
///   LocalService service;
///   service.start();
///   const auto id = service.jobs().add({.label = "mail", .payload = "console.log(1)"});
///   … run a driver against service.url() with service.token() …
///   service.jobs().waitFor(id, JobState::done, 10s);
class LocalService {
 public:
  using Milliseconds = std::chrono::milliseconds;

  explicit LocalService(LocalServiceOptions options = {});
  ~LocalService();  ///< stops
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;

  /// Binds and serves on threads of its own. Throws std::runtime_error with a message for people
  /// (port taken, unreadable certificate). A stopped service can be started again; its jobs stay.
  void start();
  /// Drops every connection, open long polls included, and returns when all threads have ended.
  /// Harmless when not running.
  void stop();
  /// No jobs, files, faults, provider rules, pairings, outage or requests, and the first hello
  /// reply, pairing rules and manifest.
  /// Connections, token, provider key and lease time stay, and so does the count of job
  /// identifiers: a driver left over from before cannot meet a new job under an old identifier.
  void reset();

  // -- What clients are given ---------------------------------------------------------------

  std::uint16_t port() const;       ///< 0 before the first start
  std::string url() const;          ///< http://127.0.0.1:PORT, or https
  std::string token() const;        ///< the driver token that is good now
  std::string providerUrl() const;  ///< {url}/llm: POST /v1/chat/completions, GET /models
  const std::string& providerKey() const;
  const std::string& controlToken() const;  ///< that /control/ asks for

  // -- What it works with, and what happened ------------------------------------------------

  Jobs& jobs();
  FileStore& files();
  Faults& faults();
  RequestLog& requests();
  DriverToken& driverToken();
  JsonDocument& hello();     ///< the reply to hello
  JsonDocument& manifest();  ///< the reply to /driver/app.json
  PairingStore& pairings();
  /// Faults apply to the provider as the endpoints "chat" and "models". A completion that no rule
  /// is for is answered at once with "echo: " and the text of the last user message.
  ProviderRules& provider();

  // -- The service as a whole ---------------------------------------------------------------

  /// Begins now, in force when this returns, and ends by itself after `duration`, or with
  /// endOutage(). A new outage replaces the one in force. Requires a running service.
  void outage(OutageKind kind, Milliseconds duration);
  void endOutage();  ///< in force when this returns

  std::uint64_t acceptedConnections() const;  ///< since the construction
  std::uint64_t openConnections() const;
  /// Not more than `atMost` connections are open.
  bool waitForConnections(std::uint64_t atMost, Milliseconds timeout) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace verdo::local
