#include "VerdoDriver/Model/Semver.h"
#include "fuzz/Targets.h"

#include <compare>
#include <optional>
#include <string>

#include <fmt/format.h>

namespace verdo::fuzz {
namespace {

std::string textOf(const Semver& version) {
  return fmt::format("{}.{}.{}{}", version.major, version.minor, version.patch,
                     version.prerelease ? "-" + *version.prerelease : "");
}

}  // namespace

void versions(std::string_view bytes) {
  const auto first = Semver::parse(std::string(takeLine(bytes)));
  const auto second = Semver::parse(std::string(bytes));
  for (const auto& version : {first, second}) {
    if (!version) continue;
    const auto again = Semver::parse(textOf(*version));
    require(again && *again == *version, "a version comes back");
  }
  if (!first || !second) return;
  require((*first <=> *second) == (0 <=> (*second <=> *first)), "an order has two sides");
  require((*first == *second) == ((*first <=> *second) == 0), "equal is neither above nor below");
  if (!first->prerelease && second->prerelease &&
      textOf(*second).starts_with(textOf(*first) + "-")) {
    require(*first > *second, "a release is above its previews");
  }
}

}  // namespace verdo::fuzz
