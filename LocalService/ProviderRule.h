#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace verdo::local {

// NOLINTBEGIN(readability-redundant-member-init): lets callers name only the fields they set.

/// How the stand-in of the LLM provider answers the completions that it matches. A plain value.
///
/// Of several rules that match a request, the one added first answers; rules with a `count` of 1
/// are thus a queue of answers. A rule is used up by a well-formed request with the right key as it
/// arrives, whether or not its client waits for the answer.
struct ProviderRule {
  // Which requests.

  std::string match{};                   ///< occurs in the request's body as received; "": all do
  std::optional<std::uint64_t> count{};  ///< answers this many; absent: until cleared

  // When.

  std::chrono::milliseconds delay{0};  ///< before the answer, up to a day
  bool never = false;                  ///< no answer comes; ends when the client or service does
  /// Positive: the head of the answer leaves at once, and a blank line every so often until the
  /// JSON text follows after `delay`, as providers do to keep slow connections open.
  std::chrono::milliseconds keepAlive{0};
  /// With `keepAlive`: the body has no length and ends with the connection; else it is chunked.
  bool untilClose = false;

  // What.

  int status = 200;                   ///< 200..599
  std::optional<std::string> body{};  ///< sent byte for byte, JSON or not, in place of all below
  /// Text of the reply; absent: the default answer's echo. With a status of 400 and above it is
  /// the message of an error object instead, and nothing below applies.
  std::optional<std::string> content{};
  std::optional<std::string> model{};                ///< absent: the request's
  std::optional<std::string> finishReason = "stop";  ///< absent: null
  nlohmann::ordered_json usage{};  ///< null: counts, a token being taken as four bytes
  /// Keys that the completion object goes without: id, object, created, model, choices, usage.
  std::vector<std::string> omit{};
};

// NOLINTEND(readability-redundant-member-init)

/// A rule in force, or used up.
struct ProviderRuleStatus {
  std::uint64_t id = 0;
  ProviderRule rule{};
  std::uint64_t hits = 0;  ///< requests that it was chosen for
};

}  // namespace verdo::local
