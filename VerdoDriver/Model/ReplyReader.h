#pragma once

#include "VerdoDriverCore/Values/JV.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace verdo {

/// Reads the members of a JSON object that a server sent, and notes the first that does not fit.
/// What it says never quotes the reply, which may hold a secret.
class ReplyReader {
 public:
  explicit ReplyReader(std::string_view body);

  /// Null when the reply is no object or has no such member.
  const JV* find(std::string_view key) const { return reply_.find(key); }

  /// The member's value. Absent, without a mismatch, when it is missing or null.
  std::optional<std::string> optionalText(std::string_view key);
  std::optional<std::int64_t> optionalInteger(std::string_view key);

  /// The same for a member that must be there; "" or 0 after a mismatch.
  std::string text(std::string_view key);
  std::int64_t integer(std::string_view key);

  /// What is wrong with the reply, in words for the user; empty when all that was read fits.
  const std::string& mismatch() const { return mismatch_; }

 private:
  void note(std::string mismatch);

  JV reply_;
  std::string mismatch_;
};

}  // namespace verdo
