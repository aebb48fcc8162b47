#include "VerdoDriver/Model/AppManifest.h"
#include "VerdoDriver/Model/PairingReplies.h"
#include "VerdoDriver/Model/SafeLink.h"
#include "VerdoDriver/Model/Semver.h"
#include "VerdoDriver/Model/WebLink.h"
#include "VerdoDriverCore/Values/Utf8.h"
#include "fuzz/Targets.h"

#include <chrono>
#include <cstdlib>
#include <string>

namespace verdo::fuzz {
namespace {

constexpr const char* kServer = "https://verdo.example";
constexpr std::size_t kLongestSentence = 700;  // characters

void checkSentence(const PairingError& error) {
  const std::string sentence = error.errorDescription();
  require(!sentence.empty(), "an error has words");
  require(countCharacters(sentence) < kLongestSentence, "a server cannot fill the popover");
  require(repairUtf8(sentence) == sentence, "words are UTF-8");
}

void checkStart(const std::string& body) {
  const auto start = PairingReplies::readStart(body);
  if (!start) return checkSentence(start.error());
  constexpr std::chrono::seconds kWeek = std::chrono::hours(7 * 24);
  require(std::chrono::abs(start->expiresIn) <= kWeek && std::chrono::abs(start->interval) <= kWeek,
          "times fit timers");
  const auto page = WebLink::onServer(kServer, start->verifyPath);
  require(!page || WebLink::sameOrigin(*page, kServer), "the approve page is the server's");
}

void checkPoll(const std::string& body) {
  const auto poll = PairingReplies::readPoll(body);
  if (!poll) return checkSentence(poll.error());
  const bool isApproved = poll->status == PairingPoll::Status::approved;
  require(isApproved == !poll->token.empty(), "approved is who has a token");
}

void checkManifest(const std::string& body) {
  const auto manifest = AppManifest::decode(body);
  if (!manifest) return require(!manifest.error().empty(), "a refusal has a reason");
  for (const auto& link : {manifest->dmgURL, manifest->egoInstallURL}) {
    const auto allowed = SafeLink::allowed(link, kServer);
    require(!allowed || allowed->starts_with("https://"), "no link leads to plain http");
  }
  const auto version = Semver::parse(manifest->appVersion.value_or(""));
  require(!version || (*version <=> *version) == 0, "a version equals itself");
}

}  // namespace

void pairing(std::string_view bytes) {
  const std::string body(bytes);
  checkStart(body);
  checkPoll(body);
  for (const int status : {404, 429, 503}) checkSentence(PairingReplies::readFailure(status, body));
  checkManifest(body);
}

}  // namespace verdo::fuzz
