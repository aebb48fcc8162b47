#include "VerdoDriver/Model/UpdateChecker.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Semver.h"
#include "VerdoDriver/Model/ServerURL.h"
#include "VerdoDriver/Model/WebLink.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Values/Url.h"

#include <fmt/format.h>

namespace verdo {
namespace {

using Kind = UpdateError::Kind;

constexpr std::chrono::seconds kManifestTimeout{15};

UpdateChecker::Outcome failure(Kind kind, std::string description) {
  return tl::make_unexpected(UpdateError{kind, std::move(description)});
}

UpdateChecker::Outcome read(const HttpResult& result) {
  if (!result) return failure(Kind::transport, result.error().description);
  const auto& [status, body] = *result;
  if (status < 200 || status > 299) {
    return failure(Kind::badServerResponse, fmt::format("HTTP {}", status));
  }
  return AppManifest::decode(body).map_error([](const std::string& mismatch) {
    return UpdateError{Kind::badReply, "Unexpected reply from the server: " + mismatch};
  });
}

}  // namespace

std::optional<std::string> UpdateChecker::manifestURL(const std::string& server) {
  return WebLink::onServer(trimmedServerUrl(server), "/driver/app.json");
}

void UpdateChecker::check(const std::string& server, bool allowInsecure, Completion completion) {
  const auto failLater = [&](Outcome outcome) {
    http_.later([this, outcome = std::move(outcome), completion = std::move(completion)] {
      finish(outcome, completion);
    });
  };
  const auto url = manifestURL(server);
  if (!url) return failLater(failure(Kind::badURL, "The server URL is not valid."));
  // The policy reads the text as it is, and would miss a plain http that is spelt unusually.
  if (const auto refusal =
          ServerURLPolicy::refusal(lowerScheme(trimmedServerUrl(server)), allowInsecure)) {
    AppLog::update.info("[UpdateChecker] manifest fetch refused: " + *refusal);
    return failLater(failure(Kind::refused, *refusal));
  }
  HttpRequest request;
  request.url = *url;
  request.headers = {{"Accept", "application/json"}};
  AppLog::update.debug("[UpdateChecker] GET " + *url);
  http_.send(std::move(request), kManifestTimeout,
             [this, completion = std::move(completion)](const HttpResult& result) {
               finish(read(result), completion);
             });
}

void UpdateChecker::finish(const Outcome& outcome, const Completion& completion) {
  if (outcome) {
    latest_ = *outcome;
    AppLog::update.info(fmt::format("[UpdateChecker] app_version={} protocol={} newer={}",
                                    outcome->appVersion.value_or("none"),
                                    outcome->protocolVersion.value_or(-1), isNewer(*outcome)));
  } else {
    AppLog::update.info("[UpdateChecker] manifest fetch failed: " + outcome.error().description);
  }
  completion(outcome);  // last: it may let go of the checker
}

bool UpdateChecker::isNewer(const AppManifest& manifest) const {
  const auto offered = manifest.appVersion ? Semver::parse(*manifest.appVersion) : std::nullopt;
  const auto running = Semver::parse(currentVersion_);
  return offered && running && *offered > *running;
}

}  // namespace verdo
