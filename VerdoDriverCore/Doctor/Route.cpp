#include "VerdoDriverCore/Doctor/Route.h"

#include <cerrno>
#include <cstdlib>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace verdo {
namespace {

using Stage = HttpTrace::Stage;
using std::chrono::seconds;

constexpr const char* kName = "name resolution";
constexpr const char* kProxy = "proxy";
constexpr const char* kConnection = "connection";
constexpr const char* kTls = "TLS";
constexpr const char* kClock = "clock";

/// Nothing in the protocol minds less.
constexpr auto kMaxSkew = seconds(60);
constexpr int kProxyAuthenticationRequired = 407;

bool isNumeric(const std::string& host) {
  return host.starts_with('[') || host.find_first_not_of("0123456789.") == std::string::npos;
}

Finding nameFinding(const RouteEvidence& evidence) {
  const std::string& host = evidence.server.host();
  if (!evidence.trace.proxy.empty()) return Finding::ok(kName, "left to the proxy");
  if (evidence.trace.stage == Stage::resolving) {
    return Finding::failed(kName, fmt::format("the name {} cannot be resolved", host),
                           evidence.remedies.missingProxy, evidence.failure);
  }
  if (isNumeric(host)) return Finding::ok(kName, host + " is an address already");
  return Finding::ok(kName, host + " resolves", evidence.trace.address);
}

Finding proxyFinding(const RouteEvidence& evidence) {
  const HttpTrace& trace = evidence.trace;
  const Remedies& remedies = evidence.remedies;
  if (trace.proxy.empty()) return Finding::ok(kProxy, "none is used");
  const std::string detail = fmt::format("{}: {}", trace.proxy, evidence.failure);
  const auto failed = [&](const std::string& reason, const std::string& remedy) {
    return Finding::failed(kProxy, reason, remedy, detail);
  };
  if (trace.proxyStatus == kProxyAuthenticationRequired ||
      trace.status == kProxyAuthenticationRequired) {
    return failed("the proxy asks for a user name and a password, or does not accept these",
                  remedies.proxyPassword);
  }
  switch (trace.stage) {
    case Stage::resolvingProxy:
      return failed("the proxy's name cannot be resolved", remedies.proxy);
    case Stage::connecting:
      return failed("no connection to the proxy", remedies.proxy);
    case Stage::tunnelling:
      return trace.proxyStatus == 0
                 ? failed("what is named as proxy does not answer as one", remedies.proxy)
                 : failed(fmt::format("the proxy does not let through to the server (status {})",
                                      trace.proxyStatus),
                          remedies.proxyException);
    default:
      return Finding::ok(kProxy, "one is used, and lets through", trace.proxy);
  }
}

Finding connectionFinding(const RouteEvidence& evidence) {
  if (evidence.trace.stage != Stage::connecting) return Finding::ok(kConnection, "made");
  const std::string port = evidence.server.port()      ? std::to_string(*evidence.server.port())
                           : evidence.server.isHttps() ? "443"
                                                       : "80";
  if (evidence.trace.systemError == ECONNREFUSED) {
    return Finding::failed(
        kConnection, fmt::format("nothing listens on port {} of the server", port),
        "Check the port in the server address, and whether the service runs.", evidence.failure);
  }
  return Finding::failed(
      kConnection, fmt::format("port {} of the server cannot be reached", port),
      "Check that this computer is online, and that no firewall (or a missing proxy or VPN) is in "
      "the way.",
      evidence.failure);
}

Finding certificateFinding(const RouteEvidence& evidence) {
  const auto failed = [&](const std::string& reason, const std::string& remedy) {
    return Finding::failed(kTls, reason, remedy, evidence.failure);
  };
  const auto today = fmt::format("{:%Y-%m-%d %H:%M} UTC",
                                 fmt::gmtime(std::chrono::system_clock::to_time_t(evidence.now)));
  using Certificate = HttpTrace::Certificate;
  switch (evidence.trace.certificate) {
    case Certificate::untrusted:
      return failed(evidence.hasOwnCa
                        ? "the server's certificate is not signed by those in the CA file"
                        : "the server's certificate is self-signed, or of an authority that this "
                          "computer does not trust",
                    evidence.remedies.authority);
    case Certificate::expired:
      return failed("the server's certificate has expired, by this computer's clock: " + today,
                    "If that date is right, whoever runs the server must renew the certificate; "
                    "else set the clock.");
    case Certificate::notYetValid:
      return failed("the server's certificate is not valid yet, by this computer's clock: " + today,
                    "Set the clock; if it is right, whoever runs the server must change the "
                    "certificate.");
    case Certificate::otherName:
      return failed(
          "the server's certificate is made out to another name than " + evidence.server.host(),
          "Use the name that the certificate has in the server address; if that is the "
          "right one, somebody may be listening in: do not go on.");
    case Certificate::accepted:
      break;
  }
  return failed("no TLS on this port: the handshake failed",
                "Check the port in the server address; a service on this computer may speak plain "
                "http://.");
}

Finding tlsFinding(const RouteEvidence& evidence) {
  if (evidence.server.isHttps()) {
    return evidence.trace.stage == Stage::securing
               ? certificateFinding(evidence)
               : Finding::ok(kTls, "the server's certificate is trusted");
  }
  if (evidence.server.isLoopback()) {
    return Finding::ok(kTls, "not needed: the service is on this computer");
  }
  return Finding::warning(kTls, "plain http: the token travels in clear", "Use https://.");
}

Finding clockFinding(const RouteEvidence& evidence) {
  if (!evidence.trace.date) return Finding::skipped(kClock, "no reply named the server's time");
  const auto skew = std::chrono::duration_cast<seconds>(evidence.now - *evidence.trace.date);
  const auto off = std::abs(skew.count());
  if (off <= kMaxSkew.count()) return Finding::ok(kClock, "agrees with the server's");
  const std::string amount = off < 7200 ? fmt::format("{} minutes", (off + 30) / 60)
                                        : fmt::format("{} hours", (off + 1800) / 3600);
  return Finding::warning(kClock,
                          fmt::format("this computer's clock is {} {} of the server's", amount,
                                      skew.count() > 0 ? "ahead" : "behind"),
                          "Set the clock, or have it set over the network (timedatectl set-ntp "
                          "true): links and certificates run out at the wrong time.");
}

}  // namespace

std::vector<std::string> routeChecks() { return {kName, kProxy, kConnection, kTls, kClock}; }

std::vector<Finding> examineRoute(const RouteEvidence& evidence) {
  std::vector<Finding> findings;
  const std::pair<const char*, Finding (*)(const RouteEvidence&)> checks[] = {
      {kName, nameFinding},
      {kProxy, proxyFinding},
      {kConnection, connectionFinding},
      {kTls, tlsFinding},
      {kClock, clockFinding}};
  std::string broken;
  for (const auto& [name, check] : checks) {
    findings.push_back(broken.empty() ? check(evidence)
                                      : Finding::skipped(name, broken + " has failed"));
    if (findings.back().hasFailed()) broken = name;
  }
  return findings;
}

}  // namespace verdo
