#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace verdo {

/// A version "major.minor.patch" or "major.minor.patch-prerelease".
struct Semver {
  std::int64_t major = 0;
  std::int64_t minor = 0;
  std::int64_t patch = 0;
  std::optional<std::string> prerelease;

  /// Absent for anything else: no "v" in front, no fewer or more numbers, no "+build".
  static std::optional<Semver> parse(const std::string& text);

  bool operator==(const Semver&) const = default;
  /// By the numbers, then releases after prereleases, then prereleases as plain texts: "rc.10"
  /// comes before "rc.9".
  std::strong_ordering operator<=>(const Semver& other) const;
};

}  // namespace verdo
