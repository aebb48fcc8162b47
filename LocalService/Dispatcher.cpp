#include "LocalService/Dispatcher.h"

#include "LocalService/RawReply.h"
#include "LocalService/WebGuard.h"

#include <algorithm>
#include <csignal>
#include <exception>
#include <utility>

namespace verdo::local {
namespace {

constexpr std::size_t kMaxBody = 256u << 20;

/// What cpp-httplib's constructor changes in the process is put back: its one global effect is to
/// ignore SIGPIPE, which is the embedding program's decision.
class SigpipeKept {
 public:
  SigpipeKept() { ::sigaction(SIGPIPE, nullptr, &before_); }
  ~SigpipeKept() { ::sigaction(SIGPIPE, &before_, nullptr); }
  SigpipeKept(const SigpipeKept&) = delete;
  SigpipeKept& operator=(const SigpipeKept&) = delete;

 private:
  struct sigaction before_{};
};

std::vector<std::pair<std::string, std::string>> parseHeaders(std::string_view head) {
  std::vector<std::pair<std::string, std::string>> headers;
  auto line = head.find("\r\n");
  while (line != std::string_view::npos) {
    head.remove_prefix(line + 2);
    line = head.find("\r\n");
    const auto text = head.substr(0, line);
    const auto colon = text.find(':');
    if (colon == std::string_view::npos) continue;
    auto value = text.substr(colon + 1);
    value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
    value = value.substr(0, value.find_last_not_of(" \t") + 1);
    headers.emplace_back(text.substr(0, colon), value);
  }
  return headers;
}

/// What is wrong with the announced length of a body. httplib would wait for bytes that never come.
std::optional<HttpError> lengthProblem(const httplib::Request& request) {
  const auto count = request.get_header_value_count("Content-Length");
  if (count == 0) return std::nullopt;
  const auto text = request.get_header_value("Content-Length");
  const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  if (count > 1 || !digits) {
    return HttpError(400, "\"Content-Length\" must be one whole number, not \"" + text + "\"");
  }
  const auto size = parseInteger(text);
  if (!size || static_cast<std::uint64_t>(*size) > kMaxBody) {
    return HttpError(413, "a body may have " + std::to_string(kMaxBody) + " bytes");
  }
  return std::nullopt;
}

/// Whether the delivery shows a reply at all, whole or not.
bool carriesReply(Delivery delivery) {
  return delivery == Delivery::whole || delivery == Delivery::truncated ||
         delivery == Delivery::trickled;
}

void run(const Route& route, Exchange& exchange) {
  try {
    route.handle(exchange);
  } catch (const HttpError& error) {
    replyJson(exchange.response, {{"error", error.what()}}, error.status());
  } catch (const std::exception& error) {
    replyJson(exchange.response, {{"error", error.what()}}, 500);
  }
}

}  // namespace

/// The request that a connection's thread is working on.
struct Dispatcher::Current {
  Current(Dispatcher& owner, Connection& from) : dispatcher(owner), connection(from) {}

  Dispatcher& dispatcher;
  Connection& connection;
  std::string path;                    // percent-decoded
  std::optional<HttpError> refusal;    // of a request whose body cannot be read
  std::optional<std::uint64_t> entry;  // in the request log
  std::optional<Fault> fault;
  int status = 0;  // of the ordinary reply; 0: answered otherwise
  std::function<void()> undo;
  std::function<void()> afterReply;
};

/// cpp-httplib without its sockets: requests come from and replies go to a Connection. All
/// requests end in one handler; routing by regular expression is avoided by giving every request
/// the path "/" (the true one is kept in Current).
class Dispatcher::Engine final : public httplib::Server {
 public:
  Engine() {
    const Handler handler = [](const httplib::Request& request, httplib::Response& response) {
      current_->dispatcher.handle(*current_, request, response);
    };
    Get("/", handler).Post("/", handler).Put("/", handler).Patch("/", handler);
    Delete("/", handler).Options("/", handler);
    set_keep_alive_max_count(1'000'000);
    set_keep_alive_timeout(kKeepAlive.count());
    set_payload_max_length(kMaxBody);
  }

  /// Reads a request, handles it, writes the reply. False: the connection must end.
  bool process(Current& current) {
    current_ = &current;
    bool closed = false;
    const auto prepare = [&](httplib::Request& request) {
      current.path = std::exchange(request.path, "/");
      // Bodies are taken as they are; curl -d calls them forms, and httplib would read them so.
      request.headers.erase("Content-Type");
      current.refusal = lengthProblem(request);
      if (current.refusal) {
        request.headers.erase("Content-Length");
        request.headers.erase("Transfer-Encoding");
      }
      // A request that announces no body has none; httplib would read until the client hangs up.
      if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding")) {
        request.set_header("Content-Length", "0");
      }
    };
    const bool ok = process_request(current.connection, false, closed, prepare);
    current_ = nullptr;
    return ok && !closed;
  }

 private:
  // httplib's handlers are told nothing but the request, and each thread has one at a time.
  static thread_local Current* current_;
};

thread_local Dispatcher::Current* Dispatcher::Engine::current_ = nullptr;

Dispatcher::Dispatcher(Faults& faults, RequestLog& log, const HangGate& hang)
    : faults_(faults), log_(log), hang_(hang) {
  const SigpipeKept kept;
  engine_ = std::make_unique<Engine>();
}

Dispatcher::~Dispatcher() = default;

bool Dispatcher::serveOne(Connection& connection) {
  connection.beginRequest();
  Current current(*this, connection);
  const bool goOn = engine_->process(current);
  finish(current);
  return goOn && !connection.ending();
}

Route Dispatcher::findRoute(const std::string& method, const std::string& path) const {
  for (auto* group : groups_) {
    if (auto route = group->match(method, path)) return *route;
  }
  return Route{.endpoint = "unknown", .jobId = {}, .handle = [](const Exchange& exchange) {
                 throw HttpError(
                     404, "there is no " + exchange.request.method + " " + exchange.path + " here");
               }};
}

void Dispatcher::handle(Current& current, const httplib::Request& request,
                        httplib::Response& response) {
  auto& connection = current.connection;
  try {
    if (current.refusal) {
      connection.endAfterReply();  // where its body ends, nobody knows
      throw HttpError(*current.refusal);
    }
    refuseForeignPages(request);
  } catch (const HttpError& error) {
    return replyJson(response, {{"error", error.what()}}, error.status());
  }
  const auto route = findRoute(request.method, current.path);
  Exchange exchange{.request = request,
                    .path = current.path,
                    .response = response,
                    .connection = connection,
                    .number = 0,
                    .undo = {},
                    .truncateAfter = {},
                    .stream = {},
                    .afterReply = {}};
  response.status = 200;
  if (!route.observed) {
    run(route, exchange);
    current.afterReply = std::move(exchange.afterReply);
    return;
  }

  logArrival(current, route, request);
  exchange.number = *current.entry;
  if (auto picked = faults_.pick(route.endpoint, route.jobId, request.body.size())) {
    log_.faultApplied(*current.entry, picked->first);
    current.fault = std::move(picked->second);
  }
  const auto& fault = current.fault;
  const auto delayed = [&] {
    return fault->delay.count() == 0 || connection.wait(fault->delay) == Connection::Wake::timeout;
  };
  if (!hang_.pass(connection) || (fault && !fault->processed && !delayed())) {
    return abandon(current);
  }
  if (!fault || fault->processed || (!fault->reply && carriesReply(fault->delivery))) {
    run(route, exchange);
  }
  current.undo = std::move(exchange.undo);
  current.afterReply = std::move(exchange.afterReply);
  if (exchange.abandoned) return abandon(current);
  // What was processed stays, whatever becomes of the reply.
  if (fault && fault->processed) current.undo = nullptr;
  if ((fault && fault->processed && !delayed()) || !hang_.pass(connection)) {
    return abandon(current);
  }
  deliver(current, exchange);
}

void Dispatcher::logArrival(Current& current, const Route& route, const httplib::Request& request) {
  RequestRecord record;
  record.endpoint = route.endpoint;
  record.method = request.method;
  record.target = request.target;
  record.headers = parseHeaders(current.connection.head());
  record.bodySize = request.body.size();
  record.jobId = route.jobId;
  record.connection = current.connection.number();
  record.peerPort = current.connection.peerPort();
  record.arrived = RequestRecord::Clock::now();
  current.entry = log_.arrived(std::move(record), request.body);
}

void Dispatcher::deliver(Current& current, Exchange& exchange) {
  auto& connection = exchange.connection;
  auto& response = exchange.response;
  if (exchange.truncateAfter && !current.fault) {
    current.fault =
        Fault{.delivery = Delivery::truncated, .truncateAfter = *exchange.truncateAfter};
  }
  const auto& fault = current.fault;
  if (connection.hungUp()) return abandon(current);
  if (!fault || (fault->delivery == Delivery::whole && !fault->reply)) {
    if (exchange.stream && !exchange.stream()) return abandon(current);
    current.status = response.status;
    log_.replied(*current.entry, current.status);
    return;
  }
  const auto reply = fault->reply ? rawReply(*fault->reply) : rawReply(response);
  switch (fault->delivery) {
    case Delivery::whole:
      log_.replied(*current.entry, reply.status);
      connection.takeOver();
      connection.send(reply.head + reply.body);
      return;
    case Delivery::truncated:
      log_.replied(*current.entry, reply.status);
      connection.takeOverAndEnd();
      connection.send(reply.head + reply.body.substr(0, fault->truncateAfter));
      return;
    case Delivery::trickled:
      log_.replied(*current.entry, reply.status);
      connection.takeOver();
      trickle(connection, reply.head + reply.body, fault->bytesPerSecond);
      return;
    case Delivery::reset:
      log_.replied(*current.entry, 0);
      connection.abort();
      return;
    case Delivery::close:
      log_.replied(*current.entry, 0);
      connection.takeOverAndEnd();
      return;
    case Delivery::garbage:
      log_.replied(*current.entry, 0);
      connection.takeOverAndEnd();
      connection.send(fault->garbage);
      return;
  }
}

void Dispatcher::abandon(Current& current) {
  current.connection.takeOverAndEnd();
  if (current.undo) std::exchange(current.undo, nullptr)();
  log_.hungUp(*current.entry);
}

void Dispatcher::finish(Current& current) {
  const bool sent = current.connection.flush();
  if (!sent && current.entry && current.status != 0) {
    if (current.undo) std::exchange(current.undo, nullptr)();
    log_.hungUp(*current.entry);
  }
  if (current.afterReply) current.afterReply();
}

}  // namespace verdo::local
