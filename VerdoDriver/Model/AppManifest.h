#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <tl/expected.hpp>

namespace verdo {

/// What the server publishes about the newest release of the app. Every field may be absent.
struct AppManifest {
  std::optional<std::string> appVersion;  ///< newest version of the app (Semver)
  std::optional<std::string> dmgURL;      ///< download of the app; open it through SafeLink only
  std::optional<std::int64_t> protocolVersion;  ///< driver protocol of the server
  std::optional<std::string> driverVersion;     ///< of the server, for information
  std::optional<std::string> egoInstallURL;     ///< browser tool; through SafeLink only

  /// Reads a manifest from JSON. Keys that are missing or null are absent fields; the error says
  /// what does not fit.
  [[nodiscard]] static tl::expected<AppManifest, std::string> decode(const std::string& json);

  bool operator==(const AppManifest&) const = default;
};

}  // namespace verdo
