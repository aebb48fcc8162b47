#include "VerdoDriver/Model/PairingReplies.h"

#include "VerdoDriver/Model/ReplyReader.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

namespace verdo::PairingReplies {
namespace {

/// Longer times are nonsense in a pairing, and would not fit dates and timers.
constexpr std::int64_t kMaxSeconds = 7 * 24 * 3600;
/// Of a text that the server puts into a message for the user, in characters.
constexpr std::size_t kMaxQuote = 500;

tl::unexpected<PairingError> badReply(std::string detail) {
  return tl::make_unexpected(PairingError::badReply(std::move(detail)));
}

std::chrono::seconds secondsOf(ReplyReader& reply, std::string_view key) {
  return std::chrono::seconds(std::clamp(reply.integer(key), -kMaxSeconds, kMaxSeconds));
}

}  // namespace

tl::expected<PairingStart, PairingError> readStart(const std::string& body) {
  ReplyReader reply(body);
  PairingStart start;
  start.code = reply.text("code");
  start.userCode = reply.text("user_code");
  start.verifyPath = reply.text("verify_path");
  start.expiresIn = secondsOf(reply, "expires_in");
  start.interval = secondsOf(reply, "interval");
  if (!reply.mismatch().empty()) return badReply(reply.mismatch());
  return start;
}

tl::expected<PairingPoll, PairingError> readPoll(const std::string& body) {
  using Status = PairingPoll::Status;
  const ReplyReader reply(body);
  const auto textOf = [&](std::string_view key) {
    const JV* value = reply.find(key);
    return value ? value->asString() : nullptr;
  };
  const auto* status = textOf("status");
  if (!status) return badReply("no status");
  if (*status == "pending") return PairingPoll{Status::pending, {}, {}};
  if (*status == "denied") return PairingPoll{Status::denied, {}, {}};
  if (*status == "expired") return PairingPoll{Status::expired, {}, {}};
  if (*status != "approved") return badReply("status " + firstCharacters(*status, kMaxQuote));
  const auto* token = textOf("token");
  if (!token || token->empty()) return badReply("approved without a token");
  const auto* username = textOf("username");
  return PairingPoll{Status::approved, *token, username ? *username : "?"};
}

PairingError readFailure(int status, const std::string& body) {
  const ReplyReader reply(body);
  const JV* detail = reply.find("detail");
  const auto* text = detail ? detail->asString() : nullptr;
  return PairingError::http(status, text ? firstCharacters(*text, kMaxQuote) : "");
}

}  // namespace verdo::PairingReplies
