#include "LocalService/ManifestEndpoints.h"

#include <utility>

namespace verdo::local {

using nlohmann::ordered_json;

ordered_json ManifestEndpoints::defaultManifest() {
  return {{"app_version", VERDO_VERSION},
          {"dmg_url", "https://example.org/verdo/Verdo-Driver.dmg"},
          {"protocol", 2},
          {"driver_version", VERDO_VERSION},
          {"ego_install_url", "https://example.org/verdo/ego-lite"}};
}

ordered_json ManifestEndpoints::manifest() const {
  const MutexLock lock(mutex_);
  return manifest_;
}

void ManifestEndpoints::setManifest(ordered_json manifest) {
  const MutexLock lock(mutex_);
  manifest_ = std::move(manifest);
}

void ManifestEndpoints::patchManifest(const ordered_json& patch) {
  const MutexLock lock(mutex_);
  manifest_.merge_patch(patch);
}

std::optional<Route> ManifestEndpoints::match(std::string_view method, std::string_view path) {
  if (method != "GET" || path != "/driver/app.json") return std::nullopt;
  return Route{.endpoint = "manifest", .jobId = {}, .handle = [this](Exchange& exchange) {
                 replyJson(exchange.response, manifest());
               }};
}

}  // namespace verdo::local
