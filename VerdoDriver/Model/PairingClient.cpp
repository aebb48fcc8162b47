#include "VerdoDriver/Model/PairingClient.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/ReplyReader.h"
#include "VerdoDriver/Model/WebLink.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <cstdint>

namespace verdo {
namespace {

constexpr std::chrono::seconds kPairingTimeout{20};
/// Longer times are nonsense in a pairing, and would not fit dates and timers.
constexpr std::int64_t kMaxSeconds = 7 * 24 * 3600;
/// Of a text that the server puts into a message for the user, in characters.
constexpr std::size_t kMaxQuote = 500;

tl::unexpected<PairingError> badReply(std::string detail) {
  return tl::make_unexpected(PairingError::badReply(std::move(detail)));
}

/// Of a reply that is not a success.
PairingError statusError(const HttpResponse& response) {
  const ReplyReader reply(response.body);
  const JV* detail = reply.find("detail");
  const auto* text = detail ? detail->asString() : nullptr;
  return PairingError::http(response.status, text ? firstCharacters(*text, kMaxQuote) : "");
}

std::chrono::seconds secondsOf(ReplyReader& reply, std::string_view key) {
  return std::chrono::seconds(std::clamp(reply.integer(key), -kMaxSeconds, kMaxSeconds));
}

tl::expected<PairingStart, PairingError> decodeStart(const std::string& body) {
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

tl::expected<PairingPoll, PairingError> decodePoll(const std::string& body) {
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

}  // namespace

void PairingClient::start(const std::string& server, bool allowInsecure, const std::string& host,
                          StartCompletion completion) {
  post(server, allowInsecure, "/api/driver/pair/start", JV::Object{{"host", host}},
       [completion = std::move(completion)](const Body& body) {
         completion(body.and_then(decodeStart));
       });
}

void PairingClient::poll(const std::string& server, bool allowInsecure, const std::string& code,
                         PollCompletion completion) {
  post(server, allowInsecure, "/api/driver/pair/poll", JV::Object{{"code", code}},
       [completion = std::move(completion)](const Body& body) {
         completion(body.and_then(decodePoll));
       });
}

void PairingClient::post(const std::string& server, bool allowInsecure, const std::string& path,
                         const JV& payload, std::function<void(const Body&)> completion) {
  const auto fail = [&](PairingError error) {
    http_.later([completion = std::move(completion), error = std::move(error)] {
      completion(tl::make_unexpected(error));
    });
  };
  if (const auto refusal = ServerURLPolicy::refusal(lowerScheme(server), allowInsecure)) {
    AppLog::connect.info("[PairingClient] refused: " + *refusal);
    return fail(PairingError::refused(*refusal));
  }
  const auto url = WebLink::onServer(server, path);
  if (!url) return fail(PairingError::badURL());
  HttpRequest request;
  request.method = "POST";
  request.url = *url;
  request.headers = {{"Content-Type", "application/json"},
                     {"Accept", "application/json"},
                     {"X-VERDO-Driver-Client", clientHeader_}};
  request.body = std::make_shared<const ByteBuffer>(PyJSON::text(payload));
  AppLog::connect.debug("[PairingClient] POST " + *url);
  http_.send(
      std::move(request), kPairingTimeout,
      [completion = std::move(completion)](const HttpResult& result) {
        if (!result) {
          completion(tl::make_unexpected(PairingError::transport(result.error().description)));
        } else if (result->status < 200 || result->status > 299) {
          completion(tl::make_unexpected(statusError(*result)));
        } else {
          completion(result->body);
        }
      });
}

}  // namespace verdo
