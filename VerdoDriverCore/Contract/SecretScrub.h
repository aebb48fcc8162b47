#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace verdo {

/// Leaves the driver's secrets out of texts that quote what a server, a provider or a proxy said:
/// such texts reach logs and the service. A plain value; reading it is safe from any thread.
class SecretScrub {
 public:
  SecretScrub() = default;
  /// Empty secrets count as absent.
  SecretScrub(std::initializer_list<std::string> secrets);
  void add(std::string secret);

  /// The text, repaired to UTF-8, with "…" in place of each secret, be it as it is, percent-encoded
  /// or with JSON's escapes. So is the beginning of a secret (three characters and more) that the
  /// text ends with: somebody has cut the text there.
  std::string scrubbed(std::string_view text) const;
  /// The first `limit` characters of the scrubbed text, which hold no part of a secret either.
  std::string excerpt(std::string_view text, std::size_t limit) const;

 private:
  std::vector<std::string> secrets_;
};

}  // namespace verdo
