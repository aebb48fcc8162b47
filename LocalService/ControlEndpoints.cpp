#include "LocalService/ControlEndpoints.h"

#include "LocalService/ControlJson.h"
#include "LocalService/Secret.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace verdo::local {
namespace {

using nlohmann::ordered_json;
using std::chrono::milliseconds;

constexpr std::string_view kControlPrefix = "/control/";

double bodyNumber(const Exchange& exchange, const char* key) {
  const auto body = parseJson(exchange.request.body);
  const auto found = body.is_object() ? body.find(key) : body.end();
  if (found == body.end() || !found->is_number() || !(found->get<double>() >= 0) ||
      !(found->get<double>() <= 86'400)) {
    throw HttpError(400, std::string("the body must be an object with \"") + key +
                             "\", a number from 0 to 86400");
  }
  return found->get<double>();
}

milliseconds bodySeconds(const Exchange& exchange) {
  return milliseconds(static_cast<std::int64_t>(bodyNumber(exchange, "seconds") * 1000));
}

/// A JSON value that is shown, replaced or patched.
bool document(Exchange& exchange, JsonDocument& value) {
  const auto& method = exchange.request.method;
  if (method == "PUT") {
    value.set(parseJson(exchange.request.body));
  } else if (method == "PATCH") {
    value.patch(parseJson(exchange.request.body));
  } else if (method != "GET") {
    return false;
  }
  replyJson(exchange.response, value.value());
  return true;
}

}  // namespace

std::optional<Route> ControlEndpoints::match(std::string_view, std::string_view path) {
  if (!path.starts_with(kControlPrefix)) return std::nullopt;
  return Route{.endpoint = "control",
               .jobId = {},
               .handle =
                   [this](Exchange& exchange) {
                     Words words;
                     std::istringstream rest(exchange.path.substr(kControlPrefix.size()));
                     for (std::string word; std::getline(rest, word, '/');) words.push_back(word);
                     dispatch(exchange, words);
                   },
               .observed = false};
}

void ControlEndpoints::authorize(const httplib::Request& request) const {
  // Browsers name the page's origin; no script or test does.
  if (request.has_header("Origin")) {
    throw HttpError(403, "the control interface does not serve web pages");
  }
  if (!isBearer(request.get_header_value("Authorization"), token_)) {
    throw HttpError(401,
                    "the control interface wants the header \"Authorization: Bearer\" with the "
                    "control token, which the service printed at start");
  }
}

void ControlEndpoints::dispatch(Exchange& exchange, const Words& words) const {
  authorize(exchange.request);
  const std::string first = words.empty() ? "" : words[0];
  const bool served = first == "jobs"       ? jobs_.serve(exchange, words)
                      : first == "faults"   ? faults(exchange, words)
                      : first == "pairings" ? pairings(exchange, words)
                      : words.size() != 1   ? false
                      : first == "outage"   ? outage(exchange)
                      : first == "hello"    ? document(exchange, service_.hello())
                      : first == "manifest" ? document(exchange, service_.manifest())
                      : first == "requests" ? requests(exchange)
                      : first == "provider" ? provider(exchange)
                                            : rest(exchange, first);
  if (!served) {
    throw HttpError(404, "the control interface has no " + exchange.request.method + " " +
                             exchange.path + "; see LocalService/README.md");
  }
}

bool ControlEndpoints::faults(Exchange& exchange, const Words& words) const {
  const auto& method = exchange.request.method;
  if (words.size() == 2 && method == "DELETE") {
    const auto id = parseInteger(words[1]);
    if (!id || !service_.faults().clear(static_cast<std::uint64_t>(*id))) {
      throw HttpError(404, "there is no fault " + words[1]);
    }
    replyJson(exchange.response, {{"ok", true}});
    return true;
  }
  if (words.size() != 1) return false;
  if (method == "POST") {
    try {
      const auto id = service_.faults().add(readFault(parseJson(exchange.request.body)));
      replyJson(exchange.response, {{"id", id}});
    } catch (const std::invalid_argument& error) {
      throw HttpError(400, error.what());
    }
  } else if (method == "GET") {
    auto list = ordered_json::array();
    for (const auto& fault : service_.faults().list()) list.push_back(toJson(fault));
    replyJson(exchange.response, {{"faults", std::move(list)}});
  } else if (method == "DELETE") {
    service_.faults().clearAll();
    replyJson(exchange.response, {{"ok", true}});
  } else {
    return false;
  }
  return true;
}

bool ControlEndpoints::pairings(Exchange& exchange, const Words& words) const {
  const auto& method = exchange.request.method;
  const std::string second = words.size() > 1 ? words[1] : "";
  if (words.size() == 1 && method == "GET") {
    auto list = ordered_json::array();
    for (const auto& pairing : service_.pairings().list()) list.push_back(toJson(pairing));
    replyJson(exchange.response, {{"pairings", std::move(list)}});
  } else if (words.size() == 2 && second == "wait" && method == "GET") {
    const auto n = static_cast<std::size_t>(queryNumber(exchange.request, "n", 1, 1e15));
    const auto pairing = service_.pairings().waitFor(n, queryWait(exchange.request, "timeout", 30));
    replyJson(exchange.response, {{"reached", pairing.has_value()},
                                  {"pairing", pairing ? toJson(*pairing) : ordered_json()}});
  } else if (words.size() == 2 && second == "rules" && method == "POST") {
    try {
      service_.pairings().setRules(readPairingRules(parseJson(exchange.request.body)));
    } catch (const std::invalid_argument& error) {
      throw HttpError(400, error.what());
    }
    replyJson(exchange.response, {{"ok", true}});
  } else if (words.size() == 3 && method == "POST" &&
             (words[2] == "approve" || words[2] == "deny" || words[2] == "expire")) {
    auto& pairings = service_.pairings();
    const bool done = words[2] == "approve" ? pairings.approve(second)
                      : words[2] == "deny"  ? pairings.deny(second)
                                            : pairings.expire(second);
    if (!done) throw HttpError(404, "there is no pending pairing " + second);
    replyJson(exchange.response, {{"ok", true}});
  } else {
    return false;
  }
  return true;
}

bool ControlEndpoints::outage(Exchange& exchange) const {
  const auto& method = exchange.request.method;
  if (method == "DELETE") {
    service_.endOutage();
  } else if (method == "POST") {
    const auto body = parseJson(exchange.request.body);
    const auto kind = body.is_object() ? body.value("kind", ordered_json()) : ordered_json();
    if (kind != "refuse" && kind != "hang") {
      throw HttpError(400, R"(an outage needs "kind", which is "refuse" or "hang", and "seconds")");
    }
    const auto duration = bodySeconds(exchange);
    // Not before the reply: a refusing service drops this connection as well.
    exchange.afterReply = [this, duration, refuse = kind == "refuse"] {
      service_.outage(refuse ? OutageKind::refuse : OutageKind::hang, duration);
    };
  } else {
    return false;
  }
  replyJson(exchange.response, {{"ok", true}});
  return true;
}

bool ControlEndpoints::requests(Exchange& exchange) const {
  const auto& method = exchange.request.method;
  if (method == "DELETE") {
    service_.requests().clear();
    replyJson(exchange.response, {{"ok", true}});
    return true;
  }
  if (method != "GET") return false;
  const auto endpoint = exchange.request.get_param_value("endpoint");
  const auto limit = static_cast<std::size_t>(queryNumber(exchange.request, "limit", 100, 20'000));
  const auto all = service_.requests().list(endpoint);
  auto list = ordered_json::array();
  for (auto i = all.size() - std::min(limit, all.size()); i < all.size(); ++i) {
    list.push_back(toJson(all[i]));
  }
  replyJson(exchange.response,
            {{"count", service_.requests().count(endpoint)}, {"requests", std::move(list)}});
  return true;
}

bool ControlEndpoints::provider(Exchange& exchange) const {
  const auto& method = exchange.request.method;
  if (method == "POST") {
    try {
      const auto id = service_.provider().add(readProviderRule(parseJson(exchange.request.body)));
      replyJson(exchange.response, {{"id", id}});
    } catch (const std::invalid_argument& error) {
      throw HttpError(400, error.what());
    }
  } else if (method == "DELETE") {
    service_.provider().clear();
    replyJson(exchange.response, {{"ok", true}});
  } else if (method == "GET") {
    auto list = ordered_json::array();
    for (const auto& rule : service_.provider().list()) list.push_back(toJson(rule));
    replyJson(exchange.response, {{"url", service_.providerUrl()},
                                  {"rules", std::move(list)},
                                  {"requests", service_.requests().count("chat")},
                                  {"in_flight", service_.requests().inFlight("chat")},
                                  {"max_in_flight", service_.requests().maxInFlight("chat")}});
  } else {
    return false;
  }
  return true;
}

bool ControlEndpoints::rest(Exchange& exchange, const std::string& word) const {
  const auto& method = exchange.request.method;
  if (word == "status" && method == "GET") {
    replyJson(exchange.response, {{"url", service_.url()},
                                  {"jobs", service_.jobs().list().size()},
                                  {"requests", service_.requests().count()},
                                  {"open_connections", service_.openConnections()},
                                  {"accepted_connections", service_.acceptedConnections()}});
    return true;
  }
  if (method != "POST") return false;
  if (word == "token") {
    const auto body = parseJson(exchange.request.body);
    const auto token = body.is_object() ? body.value("token", ordered_json(1)) : ordered_json(1);
    if (token.is_null()) {
      service_.driverToken().revoke();
    } else if (token.is_string() && !token.get_ref<const std::string&>().empty()) {
      service_.driverToken().set(token.get<std::string>());
    } else {
      throw HttpError(400, R"(give {"token": "the new one"}, or {"token": null} to revoke it)");
    }
  } else if (word == "lease") {
    service_.jobs().setLease(bodySeconds(exchange));
  } else if (word == "files") {
    const auto path =
        service_.files().add(readFile(parseJson(exchange.request.body), service_.files()));
    replyJson(exchange.response, {{"url", path}});
    return true;
  } else if (word == "reset") {
    service_.reset();
  } else {
    return false;
  }
  replyJson(exchange.response, {{"ok", true}});
  return true;
}

}  // namespace verdo::local
