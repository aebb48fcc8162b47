#pragma once

#include "LocalService/Fault.h"
#include "LocalService/JobTypes.h"
#include "LocalService/PairingTypes.h"
#include "LocalService/ProviderRule.h"
#include "LocalService/RequestRecord.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace verdo::local {

// NOLINTBEGIN(readability-redundant-member-init): lets callers name only the fields they set.
struct LocalServiceOptions {
  std::uint16_t port = 0;  ///< on 127.0.0.1; 0 picks a free one
  std::string token{};     ///< driver token; empty: a random one
  /// Certificate chain and private key, PEM files; both (then the service speaks TLS) or neither.
  std::filesystem::path certificate{};
  std::filesystem::path privateKey{};
  /// A job whose driver is silent for so long is offered again. The web service uses 60 s.
  std::chrono::milliseconds lease{60'000};
  std::uint64_t seed = 1;  ///< of the generator behind Fault::probability
  /// Also hands out the files of this folder as /files/{name}; empty: none.
  std::filesystem::path filesDirectory{};
  std::string providerKey = "provider-key";  ///< that the LLM provider accepts; not empty
};
// NOLINTEND(readability-redundant-member-init)

/// A stand-in on loopback of the web service that the driver works for: jobs with real leases, job
/// files, and failures on demand. Many instances can live in one process, each on its own port.
///
/// Thread rule: every member may be called from any thread, start() and stop() from one at a time.
/// Times are steady_clock; every wait is bounded by the time-out it is given and ends early when
/// the service stops. The owner must outlive calls in progress. Waits return as soon as what they
/// wait for has happened; none of them polls.
///
/// Usage:
///   LocalService service;
///   service.start();
///   const auto id = service.addJob({.label = "mail", .payload = "console.log(1)"});
///   … run a driver against service.url() with service.token() …
///   service.waitFor(id, JobState::done, 10s);
class LocalService {
 public:
  using Milliseconds = std::chrono::milliseconds;

  explicit LocalService(LocalServiceOptions options = {});
  ~LocalService();  ///< stops
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;

  // -- Life ---------------------------------------------------------------------------------

  /// Binds and serves on threads of its own. Throws std::runtime_error with a message for people
  /// (port taken, unreadable certificate). A stopped service can be started again; its jobs stay.
  void start();
  /// Drops every connection, open long polls included, and returns when all threads have ended.
  /// Harmless when not running.
  void stop();
  std::uint16_t port() const;  ///< 0 before the first start
  std::string url() const;     ///< http://127.0.0.1:PORT, or https
  std::string token() const;   ///< the one that is good now

  // -- Jobs ---------------------------------------------------------------------------------

  /// Queues a job and gives its identifier: 1, 2, …
  std::int64_t addJob(JobSpec spec = {});
  std::optional<JobSnapshot> job(std::int64_t id) const;  ///< absent: no such job
  std::vector<JobSnapshot> jobs() const;
  /// Lines `from`, `from` + 1, … as far as stored, at most `limit`.
  std::vector<std::string> lines(std::int64_t id, std::size_t from = 0,
                                 std::size_t limit = SIZE_MAX) const;
  /// Leased: its driver's next lines post is answered with cancel. Queued: done at once.
  /// Gives false when there is no such job or it is done.
  bool cancelJob(std::int64_t id);

  // These give false when the time-out passed first, the service stopped, or the job is unknown.

  /// The job is in `state` or comes into it; `leased` is true of a job that is done already, too.
  bool waitFor(std::int64_t id, JobState state, Milliseconds timeout) const;
  /// `predicate` holds for the job; it is asked once at first and after every change, on the
  /// calling thread with no lock held.
  bool waitFor(std::int64_t id, const std::function<bool(const JobSnapshot&)>& predicate,
               Milliseconds timeout) const;
  /// A stored line contains `text`.
  bool waitForLine(std::int64_t id, const std::string& text, Milliseconds timeout) const;
  /// Every job is done.
  bool waitForAllDone(Milliseconds timeout) const;

  /// Lease time of leases made or renewed from now on.
  void setLease(Milliseconds lease);

  // -- Files, hello, token ------------------------------------------------------------------

  /// Publishes a file under /files/{name} and gives that path, percent-encoded. `sha256`, `url` and
  /// the omit options have no meaning here. A second file of the same name replaces the first.
  std::string addFile(FileSpec file);

  nlohmann::ordered_json hello() const;
  void setHello(nlohmann::ordered_json reply);           ///< any JSON value, an object or not
  void patchHello(const nlohmann::ordered_json& patch);  ///< JSON merge patch: null removes a key

  /// The token is no longer good: every driver request is answered 401 until setToken.
  void revokeToken();
  void setToken(std::string token);

  // -- LLM provider -------------------------------------------------------------------------

  // An OpenAI-style provider: POST {providerUrl}/v1/chat/completions, GET {providerUrl}/models.
  // Faults apply to it as the endpoints "chat" and "models". A completion that no rule is for is
  // answered at once with "echo: " and the text of the last user message.

  std::string providerUrl() const;         ///< {url}/llm
  const std::string& providerKey() const;  ///< wanted as "Authorization: Bearer KEY", else 401
  /// Gives an identifier. Throws std::invalid_argument when a field is out of its range.
  std::uint64_t addProviderRule(ProviderRule rule);
  std::vector<ProviderRuleStatus> providerRules() const;  ///< since the last clearing, used up too
  void clearProviderRules();                              ///< answers under way are not affected

  // -- Pairing, manifest --------------------------------------------------------------------

  // Apps begin a pairing and poll for its end without a token; a person decides on the approve page
  // or a test does with decidePairing(). The app that polls after an approval gets the token that
  // is good then, once; from then on the code is told to be expired. An approval waits to be
  // fetched for as long as it takes.

  /// For pairings begun from now on. Throws std::invalid_argument when a field is out of its range.
  void setPairingRules(PairingRules rules);
  std::vector<PairingSnapshot> pairings() const;  ///< oldest first
  /// The n-th pairing (1, 2, …) as soon as it has begun; absent when it did not in time.
  std::optional<PairingSnapshot> waitForPairing(std::size_t n, Milliseconds timeout) const;
  /// False: there is no pairing with this user code, or it is no longer pending. The same below.
  bool decidePairing(const std::string& userCode, bool approve);
  bool expirePairing(const std::string& userCode);

  /// The reply to /driver/app.json.
  nlohmann::ordered_json manifest() const;
  void setManifest(nlohmann::ordered_json manifest);        ///< any JSON value, an object or not
  void patchManifest(const nlohmann::ordered_json& patch);  ///< JSON merge patch, as with hello

  // -- Failures -----------------------------------------------------------------------------

  /// Gives an identifier. Throws std::invalid_argument when a field is out of its range.
  std::uint64_t addFault(Fault fault);
  std::uint64_t faultHits(std::uint64_t id) const;  ///< requests hit; 0 for an unknown fault
  std::vector<FaultStatus> faults() const;          ///< those not cleared
  bool clearFault(std::uint64_t id);
  void clearFaults();

  /// Begins now, in force when this returns, and ends by itself after `duration`, or with
  /// endOutage(). A new outage replaces the one in force. Requires a running service.
  void outage(OutageKind kind, Milliseconds duration);
  void endOutage();  ///< in force when this returns

  // -- What was asked -----------------------------------------------------------------------

  // An `endpoint` is one of those of Fault::endpoint, or "" for all. Requests to /control/ are not
  // logged. The log keeps the latest 20,000 requests and 256 MiB of bodies.
  // Requests that an outage or a stop cut off count as left by their client.

  std::vector<RequestRecord> requests(const std::string& endpoint = "") const;
  std::uint64_t requestCount(const std::string& endpoint = "") const;
  /// The n-th request (1, 2, …) on the endpoint, as soon as it has arrived; absent when it did not
  /// come in time or is no longer kept.
  std::optional<RequestRecord> waitForRequest(const std::string& endpoint, std::uint64_t n,
                                              Milliseconds timeout) const;
  /// The same, once that request is over: answered, ended by a fault, or left by its client.
  std::optional<RequestRecord> waitForReply(const std::string& endpoint, std::uint64_t n,
                                            Milliseconds timeout) const;
  /// At least `n` requests on the endpoint were left by their client before they were answered
  /// (a long poll that was cancelled).
  bool waitForHangUps(const std::string& endpoint, std::uint64_t n, Milliseconds timeout) const;
  /// Requests that have arrived and are neither answered nor left by their client.
  std::uint64_t inFlight(const std::string& endpoint = "") const;
  std::uint64_t maxInFlight(const std::string& endpoint = "") const;  ///< the most at once
  /// All counts begin at 0 again; requests in flight are forgotten.
  void clearRequests();

  std::uint64_t acceptedConnections() const;  ///< since the construction
  std::uint64_t openConnections() const;
  /// Not more than `n` connections are open.
  bool waitForConnections(std::uint64_t atMost, Milliseconds timeout) const;

  /// No jobs, files, faults, provider rules, pairings, outage or requests, and the first hello
  /// reply, pairing rules and manifest.
  /// Connections, token, provider key and lease time stay, and so does the count of job
  /// identifiers: a driver left over from before cannot meet a new job under an old identifier.
  void reset();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace verdo::local
