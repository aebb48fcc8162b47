#pragma once

#include "LocalService/JsonDocument.h"
#include "LocalService/Routes.h"

namespace verdo::local {

/// /driver/app.json: what apps look at to learn of new releases.
class ManifestEndpoints final : public RouteGroup {
 public:
  /// `manifest` outlives this.
  explicit ManifestEndpoints(const JsonDocument& manifest) : manifest_(manifest) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;
  static nlohmann::ordered_json defaultManifest();

 private:
  const JsonDocument& manifest_;
};

}  // namespace verdo::local
