#pragma once

#include "LocalService/Routes.h"
#include "VerdoDriverCore/System/Sync.h"

#include <nlohmann/json.hpp>

namespace verdo::local {

/// /driver/app.json: what apps look at to learn of new releases. Every member may be called from
/// any thread.
class ManifestEndpoints final : public RouteGroup {
 public:
  nlohmann::ordered_json manifest() const;
  void setManifest(nlohmann::ordered_json manifest);
  void patchManifest(const nlohmann::ordered_json& patch);
  static nlohmann::ordered_json defaultManifest();

  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  mutable Mutex mutex_;
  nlohmann::ordered_json manifest_ GUARDED_BY(mutex_) = defaultManifest();
};

}  // namespace verdo::local
