#include "VerdoDriver/Model/CheckupWords.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr const char* kConfiguration = "configuration";
constexpr const char* kSecretStore = "secret store";
constexpr const char* kConnect = "Press Connect to website in Setup.";

}  // namespace

Remedies remediesOfTheApp() {
  const std::string executor = "Install ego-browser or verdo-browser.";
  return {
      .connect = kConnect,
      .renewToken = "Press Connect to website in Setup, which pairs this computer again.",
      .address =
          "In Setup, type the address that the website has, https://verdo.example say, and "
          "connect.",
      .plainHttp =
          "In Setup, connect to an address with https://, or allow plain http there, on a network "
          "that you trust.",
      .caFile = fmt::format(
          "Have {} name a readable PEM file with certificates in it, and start the app again.",
          DriverConstants::extraCaCertEnv),
      .authority = fmt::format(
          "If it is your server's or your company's own, have this computer trust its authority, "
          "or name that one's file in {}. If not, somebody may be listening in: do not go on.",
          DriverConstants::extraCaCertEnv),
      .values = "Check the server's address in Setup.",
      .proxy =
          "Correct the proxy in the desktop's network settings (or in the environment, where "
          "https_proxy names one), or except the server from it.",
      .proxyPassword =
          "Give them with the proxy in the desktop's network settings (or in the environment, "
          "where https_proxy names one).",
      .proxyException =
          "Ask whoever runs the proxy to let the server through, or except the server from it in "
          "the desktop's network settings.",
      .missingProxy =
          "Check how the server's name is written in Setup, and that this computer is online. "
          "Where the network demands a proxy, name it in the desktop's network settings.",
      .executorCommand = executor,
      .executorProgram = executor,
      .executor = executor,
      .executorAnswer =
          "Install ego-browser or verdo-browser anew: another program has taken the name.",
      .provider = fmt::format(
          "Have {} name the provider as http(s)://HOST[:PORT][/PATH], or nothing, and start the "
          "app again.",
          DriverConstants::llmBaseEnv),
      .providerAway = "Check that nothing stands between this computer and the provider.",
      .renewKey = "Make a new key at the provider's, type it in Setup, and press Save key.",
  };
}

Finding secretStoreFinding(const std::optional<SecretPlace>& place,
                           const std::optional<SecretError>& error) {
  const bool isInFiles = place && place->kind == SecretPlace::Kind::files;
  const std::string provider = place ? place->provider : "";
  if (!error) {
    if (!place) return Finding::ok(kSecretStore, "nothing is stored yet");
    return Finding::ok(
        kSecretStore,
        isInFiles ? "files that only you can read, in place of a keyring" : "the keyring is open",
        provider);
  }
  const auto failed = [&](const std::string& reason, const std::string& remedy) {
    return Finding::failed(kSecretStore, reason, remedy, error->description);
  };
  if (isInFiles) {
    return failed("the files with token and key cannot be read",
                  "Make them readable for you, and for nobody else.");
  }
  const std::string name = provider.empty() ? "the keyring" : provider;
  switch (error->kind) {
    case SecretError::Kind::locked:
      return failed("the keyring is locked", "Press Unlock, or unlock " + name + " itself.");
    case SecretError::Kind::unavailable:
      return failed("the keyring does not answer",
                    fmt::format("Start {}, or log in to the desktop again.", name));
    case SecretError::Kind::failed:
      break;
  }
  return failed("the keyring answers with an error",
                fmt::format("Look whether {} works with other programs.", name));
}

Finding noServerFinding() {
  return Finding::failed(kConfiguration, "this computer is not connected to a website", kConnect);
}

/// The check of the secret store tells the cause.
Finding unknownTokenFinding() {
  return Finding::skipped(kConfiguration, "the token's place does not tell what it holds");
}

Finding brokenCheckFinding(const std::exception& error) {
  return Finding::failed("check", "it could not be made to its end",
                         "End programs that you do not need, and check again.", error.what());
}

}  // namespace verdo
