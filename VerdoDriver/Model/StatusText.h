#pragma once

#include "VerdoDriverCore/Contract/ExitReason.h"

#include <optional>
#include <string>

namespace verdo {

/// What the user reads of how a run ended. A plain value.
struct StatusText {
  /// What the user can do about it, offered as a button.
  enum class Action { none, installEgo, downloadUpdate, fixToken, fixKey, fixServer };

  std::string title;
  std::string detail;
  Action action = Action::none;

  bool operator==(const StatusText&) const = default;

  /// `keyLast4`: the masked LLM key, where one is known; `retryIn`: seconds until the next try.
  static StatusText describe(const ExitReason& reason,
                             const std::optional<std::string>& keyLast4 = std::nullopt,
                             std::optional<int> retryIn = std::nullopt);
};

}  // namespace verdo
