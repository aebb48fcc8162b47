#define PCRE2_CODE_UNIT_WIDTH 8
#include "VerdoDriverCore/Run/SpacePattern.h"

#include "VerdoDriverCore/Values/PyError.h"

#include <array>

#include <pcre2.h>

namespace verdo {
namespace {

/// Backtracking steps of a whole search; some milliseconds' worth, where names need a few dozen.
constexpr std::uint32_t kMaxSteps = 1'000'000;
constexpr std::uint32_t kHeapLimit = 1024;  // KiB

}  // namespace

SpacePattern::SpacePattern(std::string_view pattern) {
  int error = 0;
  PCRE2_SIZE offset = 0;
  code_.reset(
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                    PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF, &error, &offset, nullptr),
      &pcre2_code_free);
  if (code_) return;
  std::array<PCRE2_UCHAR, 128> text{};
  pcre2_get_error_message(error, text.data(), text.size());
  throw PyError("re.error", std::string(reinterpret_cast<const char*>(text.data())) +
                                " at position " + std::to_string(offset));
}

bool SpacePattern::isFoundIn(std::string_view name) const {
  if (name.size() > kMaxName) return false;
  const std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> match(
      pcre2_match_data_create_from_pattern(code_.get(), nullptr), &pcre2_match_data_free);
  const std::unique_ptr<pcre2_match_context, decltype(&pcre2_match_context_free)> limits(
      pcre2_match_context_create(nullptr), &pcre2_match_context_free);
  if (!match || !limits) return false;
  // The library counts anew at each place where a match may begin: they share the steps.
  const auto places = static_cast<std::uint32_t>(name.size()) + 1;
  pcre2_set_match_limit(limits.get(), kMaxSteps / places);
  pcre2_set_heap_limit(limits.get(), kHeapLimit);
  return pcre2_match(code_.get(), reinterpret_cast<PCRE2_SPTR>(name.data()), name.size(), 0, 0,
                     match.get(), limits.get()) >= 0;
}

}  // namespace verdo
