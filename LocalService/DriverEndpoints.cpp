#include "LocalService/DriverEndpoints.h"

#include "LocalService/LinesBody.h"

#include <chrono>
#include <set>
#include <utility>

namespace verdo::local {
namespace {

constexpr std::string_view kApiPrefix = "/api/driver/";
constexpr const char* kProtocol = "2";

std::set<std::string> splitLanes(const std::string& text) {
  std::set<std::string> lanes;
  for (std::size_t begin = 0; begin < text.size();) {
    const auto end = std::min(text.find(',', begin), text.size());
    if (end > begin) lanes.insert(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lanes;
}

void answer(httplib::Response& response, const JobStore::LinesAnswer& lines) {
  response.set_content(std::string(R"({"ok":)") + (lines.ok ? "true" : "false") + R"(,"cancel":)" +
                           (lines.cancel ? "true" : "false") + R"(,"state":")" + lines.state +
                           R"("})",
                       "application/json");
}

}  // namespace

nlohmann::ordered_json DriverEndpoints::defaultHello() {
  return {{"protocol", 2},
          {"user", {{"username", "local"}, {"id", 1}}},
          {"driver_version", "2026.09.04"},
          {"max_jobs", 3},
          {"idle_close_seconds", 600},
          {"reap_interval_seconds", 60},
          {"space_pattern", "^(u\\d+-|replay-|apply-|audit-|agent-|co-sweep-|co-id-)"},
          {"cleanup_timeout_seconds", 45}};
}

std::optional<Route> DriverEndpoints::match(std::string_view method, std::string_view path) {
  if (!path.starts_with(kApiPrefix)) return std::nullopt;
  path.remove_prefix(kApiPrefix.size());
  if (method == "GET" && path == "hello") {
    return route("hello", {}, [this](Exchange& exchange) { hello(exchange); });
  }
  if (method == "GET" && path == "poll") {
    return route("poll", {}, [this](Exchange& exchange) { poll(exchange); });
  }
  constexpr std::string_view jobs = "jobs/";
  const auto slash = path.rfind('/');
  if (method != "POST" || !path.starts_with(jobs) || slash < jobs.size()) return std::nullopt;
  const auto action = path.substr(slash + 1);
  if (action != "lines" && action != "complete") return std::nullopt;
  const auto id = parseInteger(path.substr(jobs.size(), slash - jobs.size()));
  return route(std::string(action), id, [this, id, post = action == "lines"](Exchange& exchange) {
    if (!id) throw HttpError(400, "the job identifier in the address must be an integer");
    if (post) {
      lines(exchange, *id);
    } else {
      complete(exchange, *id);
    }
  });
}

Route DriverEndpoints::route(std::string endpoint, std::optional<std::int64_t> jobId,
                             std::function<void(Exchange&)> handle) const {
  return Route{.endpoint = std::move(endpoint),
               .jobId = jobId,
               .handle = [this, handle = std::move(handle)](Exchange& exchange) {
                 authorize(exchange.request);
                 handle(exchange);
               }};
}

void DriverEndpoints::authorize(const httplib::Request& request) const {
  if (!token_.accepts(request.get_header_value("Authorization"))) {
    throw HttpError(401, "unknown or revoked driver token");
  }
  const auto protocol = request.get_header_value("X-VERDO-Driver-Protocol");
  if (protocol != kProtocol) {
    throw HttpError(426, "this service speaks driver protocol 2, the driver speaks \"" + protocol +
                             "\": update the driver");
  }
}

void DriverEndpoints::hello(Exchange& exchange) const {
  replyJson(exchange.response, hello_.value());
}

void DriverEndpoints::poll(Exchange& exchange) const {
  using Clock = std::chrono::steady_clock;
  const auto& connection = exchange.connection;
  const auto deadline = Clock::now() + queryWait(exchange.request, "wait", 0);
  const auto busy = splitLanes(exchange.request.get_param_value("busy"));
  JobStore::Waiter waiter(jobs_, busy);
  while (true) {
    // A job that is leased to a driver which no longer listens would be lost for a lease time.
    if (!hang_.pass(connection) || connection.hungUp()) {
      exchange.abandoned = true;
      return;
    }
    if (auto handout = jobs_.lease(busy)) {
      exchange.response.set_content(handout->body, "application/json");
      handout->body.clear();
      exchange.undo = [&jobs = jobs_, handout = std::move(*handout)] { jobs.putBack(handout); };
      return;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      exchange.response.status = 204;
      return;
    }
    switch (connection.wait(left, waiter.fd())) {
      case Connection::Wake::signalled:
        waiter.clear();
        break;
      case Connection::Wake::timeout:
        break;
      case Connection::Wake::hungUp:
      case Connection::Wake::stopping:
        exchange.abandoned = true;
        return;
    }
  }
}

void DriverEndpoints::lines(Exchange& exchange, std::int64_t id) const {
  answer(exchange.response,
         jobs_.lines(id, parseLinesBody(exchange.request.body), exchange.number));
}

void DriverEndpoints::complete(Exchange& exchange, std::int64_t id) const {
  const auto body = parseJson(exchange.request.body);
  const auto exitCode = body.is_object() ? body.find("exit_code") : body.end();
  if (exitCode == body.end() || !exitCode->is_number_integer()) {
    throw HttpError(400, "the body must be an object with an integer \"exit_code\"");
  }
  const auto error = body.find("error");
  if (error != body.end() && !error->is_null() && !error->is_string()) {
    throw HttpError(400, "\"error\" must be a text or null");
  }
  answer(exchange.response, jobs_.complete(id, exitCode->get<std::int64_t>(),
                                           error != body.end() && error->is_string()
                                               ? std::optional(error->get<std::string>())
                                               : std::nullopt));
}

}  // namespace verdo::local
