#include "LocalService/ManifestEndpoints.h"

namespace verdo::local {

using nlohmann::ordered_json;

ordered_json ManifestEndpoints::defaultManifest() {
  return {{"app_version", VERDO_VERSION},
          {"dmg_url", "https://example.org/verdo/Verdo-Driver.dmg"},
          {"protocol", 2},
          {"driver_version", VERDO_VERSION},
          {"ego_install_url", "https://example.org/verdo/ego-lite"}};
}

std::optional<Route> ManifestEndpoints::match(std::string_view method, std::string_view path) {
  if (method != "GET" || path != "/driver/app.json") return std::nullopt;
  return Route{.endpoint = "manifest", .jobId = {}, .handle = [this](Exchange& exchange) {
                 replyJson(exchange.response, manifest_.value());
               }};
}

}  // namespace verdo::local
