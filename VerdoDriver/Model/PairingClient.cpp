#include "VerdoDriver/Model/PairingClient.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/PairingReplies.h"
#include "VerdoDriver/Model/WebLink.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Url.h"

namespace verdo {
namespace {

constexpr std::chrono::seconds kPairingTimeout{20};

}  // namespace

void PairingClient::start(const std::string& server, bool allowInsecure, const std::string& host,
                          StartCompletion completion) {
  post(server, allowInsecure, "/api/driver/pair/start", JV::Object{{"host", host}},
       [completion = std::move(completion)](const Body& body) {
         completion(body.and_then(PairingReplies::readStart));
       });
}

void PairingClient::poll(const std::string& server, bool allowInsecure, const std::string& code,
                         PollCompletion completion) {
  post(server, allowInsecure, "/api/driver/pair/poll", JV::Object{{"code", code}},
       [completion = std::move(completion)](const Body& body) {
         completion(body.and_then(PairingReplies::readPoll));
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
          completion(
              tl::make_unexpected(PairingReplies::readFailure(result->status, result->body)));
        } else {
          completion(result->body);
        }
      });
}

}  // namespace verdo
