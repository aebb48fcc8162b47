#pragma once

#include <string>

namespace verdo {

/// What came of one check. A plain value.
struct Finding {
  enum class Verdict {
    ok,
    warning,  ///< the driver works, but not as well as it could
    failed,   ///< the driver does not work
    skipped,  ///< not tried, or not needed
  };

  std::string check;  ///< what was checked, in a word or two
  Verdict verdict = Verdict::ok;
  std::string reason;  ///< for a person; names no host but the server's, and no user
  std::string remedy;  ///< what to do, for the same person; empty: nothing
  /// What was met, in the words of others: hosts, names, what a server said. Not for strangers.
  std::string detail;

  static Finding ok(std::string check, std::string reason, std::string detail = "") {
    return {std::move(check), Verdict::ok, std::move(reason), "", std::move(detail)};
  }
  static Finding warning(std::string check, std::string reason, std::string remedy,
                         std::string detail = "") {
    return {std::move(check), Verdict::warning, std::move(reason), std::move(remedy),
            std::move(detail)};
  }
  static Finding failed(std::string check, std::string reason, std::string remedy,
                        std::string detail = "") {
    return {std::move(check), Verdict::failed, std::move(reason), std::move(remedy),
            std::move(detail)};
  }
  /// `why` completes "not tried: ".
  static Finding skipped(std::string check, const std::string& why) {
    return {std::move(check), Verdict::skipped, "not tried: " + why, "", ""};
  }

  bool hasFailed() const { return verdict == Verdict::failed; }
};

}  // namespace verdo
