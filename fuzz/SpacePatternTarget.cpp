#include "VerdoDriverCore/Run/SpacePattern.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "fuzz/Targets.h"

#include <algorithm>
#include <optional>

#include <time.h>

namespace verdo::fuzz {
namespace {

/// Of this thread, so that a busy machine costs none of it.
double processorSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool isLiteral(std::string_view pattern) {
  return std::all_of(pattern.begin(), pattern.end(),
                     [](char c) { return (c >= 'a' && c <= 'z') || c == '-' || c == ' '; });
}

std::optional<SpacePattern> compiled(std::string_view pattern) {
  try {
    return SpacePattern(pattern);
  } catch (const PyError& error) {
    require(error.what()[0] != '\0', "a refusal has a reason");
    return std::nullopt;
  }
}

}  // namespace

void spacePattern(std::string_view bytes) {
  constexpr double kLongest = 2;  // seconds; a tenth of it is usual at worst
  const std::string_view text = takeLine(bytes);
  const double begin = processorSeconds();
  const auto pattern = compiled(text);
  require(processorSeconds() - begin < kLongest, "a pattern is compiled in time");
  if (!pattern) return;
  const double search = processorSeconds();
  const bool isFound = pattern->isFoundIn(bytes);
  require(processorSeconds() - search < kLongest, "a search ends in time");
  require(!isFound || bytes.size() <= SpacePattern::kMaxName, "long names are not searched");
  if (isLiteral(text) && bytes.size() <= SpacePattern::kMaxName) {
    require(isFound == (bytes.find(text) != bytes.npos), "plain text is found where it is");
  }
}

}  // namespace verdo::fuzz
