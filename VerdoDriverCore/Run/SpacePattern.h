#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct pcre2_real_code_8;

namespace verdo {

/// The regular expression that tells which task spaces belong to this driver. The service gives
/// it, in Perl's and Python's syntax; a search is bounded as a whole, so that a bad one cannot hang
/// us. Once built, any thread may ask.
class SpacePattern {
 public:
  /// What names a driver's spaces when the service says nothing.
  static constexpr const char* kDefault = "^(u\\d+-|replay-|apply-|audit-|agent-|co-sweep-|co-id-)";

  /// Throws PyError "re.error" with the reason when the pattern does not compile.
  explicit SpacePattern(std::string_view pattern = kDefault);

  /// Names longer than this are not searched, bytes. Real ones have a few dozen.
  static constexpr std::size_t kMaxName = 1000;

  /// True when the pattern is found anywhere in the name; false too when the name is too long or
  /// the search exceeds its limit, so that a space is never closed by mistake. Takes some tenths
  /// of a second at worst.
  bool isFoundIn(std::string_view name) const;

 private:
  std::shared_ptr<pcre2_real_code_8> code_;
};

}  // namespace verdo
