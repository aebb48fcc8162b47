#include "LocalService/PairingEndpoints.h"

#include "LocalService/ApprovePage.h"

#include <algorithm>
#include <utility>

namespace verdo::local {
namespace {

using nlohmann::ordered_json;

constexpr std::string_view kApi = "/api/driver/pair/";
constexpr std::size_t kMaxHost = 255;  // bytes; no operating system allows more

/// The text member of a body that is an object.
std::string textOf(const Exchange& exchange, const char* key) {
  const auto body = parseJson(exchange.request.body);
  const auto found = body.is_object() ? body.find(key) : body.end();
  if (found == body.end() || !found->is_string()) {
    throw HttpError(400, std::string("the body must be an object with a text \"") + key + "\"");
  }
  return found->get<std::string>();
}

/// Failures of the pairing requests are {"detail": message}.
std::function<void(Exchange&)> withDetail(std::function<void(Exchange&)> handle) {
  return [handle = std::move(handle)](Exchange& exchange) {
    try {
      handle(exchange);
    } catch (const HttpError& error) {
      replyJson(exchange.response, {{"detail", error.what()}}, error.status());
    }
  };
}

/// A field of a form whose values need no decoding, or "".
std::string_view formField(std::string_view body, std::string_view name) {
  while (!body.empty()) {
    const auto field = body.substr(0, body.find('&'));
    body.remove_prefix(std::min(field.size() + 1, body.size()));
    const auto equals = std::min(field.find('='), field.size());
    if (field.substr(0, equals) == name) return field.substr(std::min(equals + 1, field.size()));
  }
  return {};
}

std::string_view userCodeOf(const Exchange& exchange) {
  return std::string_view(exchange.path).substr(kPairingPages.size());
}

void replyPage(httplib::Response& response, const std::string& page, int status) {
  response.status = status;
  response.set_header("Content-Security-Policy", approvePagePolicy());
  response.set_header("X-Content-Type-Options", "nosniff");
  // Less would make the browser hide the origin of the form that it posts.
  response.set_header("Referrer-Policy", "same-origin");
  response.set_header("Cache-Control", "no-store");
  response.set_content(page, "text/html; charset=utf-8");
}

}  // namespace

std::optional<Route> PairingEndpoints::match(std::string_view method, std::string_view path) {
  const auto route = [](const char* endpoint, std::function<void(Exchange&)> handle) {
    return Route{.endpoint = endpoint, .jobId = {}, .handle = std::move(handle)};
  };
  if (path.starts_with(kApi) && method == "POST") {
    path.remove_prefix(kApi.size());
    if (path == "start") {
      return route("pair-start", withDetail([this](Exchange& exchange) { start(exchange); }));
    }
    if (path == "poll") {
      return route("pair-poll", withDetail([this](Exchange& exchange) { poll(exchange); }));
    }
  } else if (path.starts_with(kPairingPages)) {
    if (method == "GET") {
      return route("approve", [this](Exchange& exchange) { showPage(exchange); });
    }
    if (method == "POST") {
      return route("approve", [this](Exchange& exchange) { decide(exchange); });
    }
  }
  return std::nullopt;
}

void PairingEndpoints::start(Exchange& exchange) const {
  auto host = textOf(exchange, "host");
  if (host.size() > kMaxHost) throw HttpError(400, "\"host\" must have at most 255 bytes");
  const auto [pairing, rules] = pairings_.begin(std::move(host));
  replyJson(exchange.response, {{"code", pairing.code},
                                {"user_code", pairing.userCode},
                                {"verify_path", pairing.verifyPath},
                                {"expires_in", rules.expiresIn.count()},
                                {"interval", rules.interval.count()}});
}

void PairingEndpoints::poll(Exchange& exchange) const {
  auto code = textOf(exchange, "code");
  const auto poll = pairings_.poll(code);
  if (!poll) throw HttpError(404, "there is no pairing with this code");
  ordered_json reply{{"status", toText(poll->state)}};
  if (poll->state == PairingState::approved) {
    reply["token"] = token_.value();
    reply["username"] = poll->username;
    exchange.undo = [&pairings = pairings_, code = std::move(code)] { pairings.putBack(code); };
  }
  replyJson(exchange.response, reply);
}

void PairingEndpoints::showPage(Exchange& exchange) const {
  const auto request = pairings_.request(userCodeOf(exchange));
  if (!request) return replyPage(exchange.response, noticePage(Notice::unknown), 404);
  const auto& pairing = request->pairing;
  switch (pairing.state) {
    case PairingState::pending:
      return replyPage(exchange.response,
                       requestPage({.host = pairing.host,
                                    .userCode = pairing.userCode,
                                    .username = request->username,
                                    .nonce = request->nonce}),
                       200);
    case PairingState::approved:
      return replyPage(exchange.response, noticePage(Notice::alreadyApproved, pairing.host), 200);
    case PairingState::denied:
      return replyPage(exchange.response, noticePage(Notice::alreadyDenied, pairing.host), 200);
    case PairingState::expired:
      return replyPage(exchange.response, noticePage(Notice::expired, pairing.host), 410);
  }
}

void PairingEndpoints::decide(Exchange& exchange) const {
  const auto request = pairings_.request(userCodeOf(exchange));
  if (!request) return showPage(exchange);
  const auto& form = exchange.request.body;
  const auto decision = formField(form, "decision");
  if (decision != "approve" && decision != "deny") {
    return replyPage(exchange.response, noticePage(Notice::undecided), 400);
  }
  const bool approve = decision == "approve";
  switch (pairings_.decide(request->pairing.userCode, formField(form, "nonce"), approve)) {
    case PairingStore::Decision::made:
      return replyPage(
          exchange.response,
          noticePage(approve ? Notice::approved : Notice::denied, request->pairing.host), 200);
    case PairingStore::Decision::wrongNonce:
      return replyPage(exchange.response, noticePage(Notice::undecided), 403);
    case PairingStore::Decision::tooLate:
      showPage(exchange);
      if (exchange.response.status == 200) exchange.response.status = 409;
      return;
    case PairingStore::Decision::unknown:
      return showPage(exchange);
  }
}

}  // namespace verdo::local
