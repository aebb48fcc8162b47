#include "VerdoDriverCore/Network/Api.h"

#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Network/BodyQueue.h"
#include "VerdoDriverCore/Network/FileDownload.h"
#include "VerdoDriverCore/Network/ReplyObject.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Url.h"

#include <algorithm>
#include <array>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr std::size_t kQuotedBody = 300;  // characters of an error's body that a message quotes

/// Which bytes Python's quote leaves as they are: letters, digits and "_.-~/".
constexpr std::array<bool, 256> kKeptByQuote = [] {
  std::array<bool, 256> kept{};
  for (char c = 'a'; c <= 'z'; ++c) kept[static_cast<unsigned char>(c)] = true;
  for (char c = 'A'; c <= 'Z'; ++c) kept[static_cast<unsigned char>(c)] = true;
  for (char c = '0'; c <= '9'; ++c) kept[static_cast<unsigned char>(c)] = true;
  for (const char c : std::string_view("_.-~/")) kept[static_cast<unsigned char>(c)] = true;
  return kept;
}();

/// Appends a text percent-encoded as Python's quote does.
void appendQuoted(std::string& out, std::string_view text) {
  const auto isKept = [](char c) { return kKeptByQuote[static_cast<unsigned char>(c)]; };
  while (!text.empty()) {
    const auto kept = std::find_if_not(text.begin(), text.end(), isKept) - text.begin();
    out.append(text.substr(0, static_cast<std::size_t>(kept)));
    text.remove_prefix(static_cast<std::size_t>(kept));
    if (text.empty()) return;
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(text.front());
    out += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
    text.remove_prefix(1);
  }
}

/// The connection was dropped on purpose, which is no failure of the request.
bool isDropped(const HttpResult& result) {
  return !result && result.error().kind == TransportError::Kind::dropped;
}

ServerError::Cause causeOf(const TransportError& error) {
  switch (error.kind) {
    case TransportError::Kind::streamReset:
      return ServerError::Cause::streamReset;
    case TransportError::Kind::closed:
      return ServerError::Cause::closed;
    default:
      return ServerError::Cause::other;
  }
}

}  // namespace

Api::Api(Options options, std::shared_ptr<HttpSession> session)
    : options_(std::move(options)), session_(std::move(session)) {
  options_.scrub.add(options_.token);
  options_.base = withoutTrailingSlashes(std::move(options_.base));
  // The paths of the calls are sound by construction.
  isBaseValid_ = Url::parse(options_.base).has_value();
}

JV Api::hello() {
  Call call;
  call.path = "/api/driver/hello";
  call.timeout = options_.timings.helloTimeout;
  call.untilStop = true;
  if (options_.llmInfo) {
    call.headers.emplace_back("X-VERDO-Driver-LLM", PyJSON::text(*options_.llmInfo));
  }
  return objectOf(request(call));
}

std::optional<JsonReading> Api::poll(double wait, std::vector<std::string> busy,
                                     const HttpHeartbeat& heartbeat) {
  Call call;
  call.path = fmt::format("/api/driver/poll?wait={}", static_cast<std::int64_t>(wait));
  if (!busy.empty()) {
    // As a rule they are: a thousand LLM jobs would make sorting them again the poll's main cost.
    if (!std::is_sorted(busy.begin(), busy.end())) std::sort(busy.begin(), busy.end());
    const char* separator = "&busy=";
    for (const auto& lane : busy) {
      call.path += std::exchange(separator, "%2C");
      appendQuoted(call.path, lane);
    }
  }
  call.timeout = fromSeconds(wait) + options_.timings.pollMargin;
  call.untilStop = true;
  call.mayBringDefect = true;
  call.heartbeat = heartbeat;
  return request(call).object;
}

JV Api::objectOf(Reply reply) {
  return reply.object ? std::move(reply.object->value) : JV(JV::Object{});
}

JV Api::lines(std::int64_t jobId, std::shared_ptr<const ByteBuffer> body,
              std::optional<Duration> timeoutCap) {
  return post(fmt::format("/api/driver/jobs/{}/lines", jobId), std::move(body), timeoutCap);
}

void Api::complete(std::int64_t jobId, std::int32_t exitCode,
                   const std::optional<std::string>& error, std::optional<Duration> timeoutCap) {
  const JV record = JV::Object{{"exit_code", exitCode}, {"error", error ? JV(*error) : JV()}};
  post(fmt::format("/api/driver/jobs/{}/complete", jobId),
       std::make_shared<const ByteBuffer>(PyJSON::text(record)), timeoutCap);
}

JV Api::post(const std::string& path, std::shared_ptr<const ByteBuffer> body,
             std::optional<Duration> timeoutCap) {
  Call call;
  call.method = "POST";
  call.path = path;
  call.body = std::move(body);
  const Duration usual = options_.timings.postTimeout;
  call.timeout = std::min(usual, timeoutCap.value_or(usual));
  Reply reply = request(call);
  if (reply.throttled) fail(ServerError::Kind::server, *reply.throttled);
  return objectOf(std::move(reply));
}

Api::Headers Api::protocolHeaders() const {
  Headers headers{{"Authorization", "Bearer " + options_.token},
                  {"X-VERDO-Driver-Protocol", std::to_string(DRIVER_PROTOCOL)},
                  {"X-VERDO-Driver-Version", DRIVER_VERSION}};
  if (options_.clientHeader) headers.emplace_back("X-VERDO-Driver-Client", *options_.clientHeader);
  return headers;
}

Api::Reply Api::request(const Call& call) {
  const std::string name = fmt::format("{} {}", call.method, call.path);
  HttpRequest request;
  request.method = call.method;
  request.url = options_.base + call.path;
  if (!isBaseValid_) fail(ServerError::Kind::server, name + " -> ValueError: bad URL");
  request.timeout = call.timeout;
  request.trace = options_.trace;
  request.headers = protocolHeaders();
  request.headers.insert(request.headers.end(), call.headers.begin(), call.headers.end());
  if (call.body) {
    request.headers.emplace_back("Content-Type", "application/json");
    request.body = call.body;
  }

  const HttpResult result = perform(request, call);
  if (!result) {
    const TransportError& error = result.error();
    fail(ServerError::Kind::server,
         fmt::format("{} -> {}: {}", name, errorName(error), error.description), causeOf(error));
  }
  const auto& [status, body] = *result;
  if (status < 400) {
    if (status == 204 || body.empty()) return {};
    return {readObject(body, name, call.mayBringDefect), std::nullopt};
  }
  const std::string message =
      fmt::format("{} -> {}: {}", name, status, scrub().excerpt(body, kQuotedBody));
  switch (status) {
    case 401:
      fail(ServerError::Kind::auth, message);
    case 426:
      fail(ServerError::Kind::outOfDate, message);
    case 429:
      interrupted_.waitFor(options_.timings.throttlePause);
      return {std::nullopt, message};
    case 413:
      fail(ServerError::Kind::server, message, ServerError::Cause::bodyTooLarge);
    case 408:
    case 504:
      fail(ServerError::Kind::server, message, ServerError::Cause::waitTooLong);
    default:
      fail(ServerError::Kind::server, message);
  }
}

JsonReading Api::readObject(const std::string& body, const std::string& call,
                            bool mayHaveDefect) const {
  try {
    return readReplyObject(body, mayHaveDefect);
  } catch (const PyError& error) {
    fail(ServerError::Kind::server, fmt::format("{} -> {}", call, pyDescribe(error)));
  }
}

void Api::fail(ServerError::Kind kind, const std::string& message, ServerError::Cause cause) const {
  throw ServerError(kind, scrub().scrubbed(message), cause);
}

HttpResult Api::perform(const HttpRequest& request, const Call& call) {
  while (true) {
    HttpResult result = performOnce(request, call);
    if (!isDropped(result)) return result;
  }
}

HttpResult Api::performOnce(HttpRequest request, const Call& call) {
  std::int64_t identifier = 0;
  const auto begin = [&](const std::shared_ptr<HttpTask>& task) {
    identifier = task->identifier();
    enter(task, call.untilStop);
  };
  HttpResult result = session_->perform(std::move(request), begin, call.heartbeat);
  leave(identifier);
  return result;
}

/// Sends the request and writes the reply's body as it comes, on this thread.
HttpResult Api::performInto(FileDownload& file, HttpRequest request, const OnTask& onTask) {
  const auto queue = std::make_shared<BodyQueue>();
  request.sink = queue;
  const auto task = session_->task(std::move(request),
                                   [queue](HttpResult result) { queue->end(std::move(result)); });
  enter(task, true);
  if (onTask) onTask(task);
  task->start();
  try {
    ByteBuffer bytes;
    while (queue->next(bytes, *task)) file.write(bytes.view());
  } catch (...) {
    task->cancel();
    leave(task->identifier());
    throw;
  }
  leave(task->identifier());
  return queue->takeResult();
}

void Api::enter(const std::shared_ptr<HttpTask>& task, bool untilStop) {
  MutexLock lock(pollLock_);
  inFlight_.emplace(task->identifier(), InFlight{task, untilStop});
  if (untilStop && pollingStopped_) task->cancel();
}

void Api::leave(std::int64_t identifier) {
  MutexLock lock(pollLock_);
  inFlight_.erase(identifier);
}

std::string Api::download(const std::string& url, const std::string& destination, Duration timeout,
                          const OnTask& onTask) {
  HttpRequest request;
  request.url =
      url.starts_with("http://") || url.starts_with("https://") ? url : options_.base + url;
  if (!Url::parse(request.url)) throw PyError("ValueError", "bad file URL");
  request.timeout = timeout;
  request.followRedirects = true;
  while (true) {
    FileDownload file(destination);
    const HttpResult result = performInto(file, request, onTask);
    if (isDropped(result)) continue;
    if (!result) throw PyError("URLError", scrub().scrubbed(result.error().description));
    if (result->status < 200 || result->status > 299) {
      throw PyError("HTTPError", fmt::format("HTTP {}", result->status));
    }
    return file.finish();
  }
}

void Api::stopPolling() {
  MutexLock lock(pollLock_);
  pollingStopped_ = true;
  for (const auto& [identifier, call] : inFlight_) {
    if (call.untilStop) call.task->cancel();
  }
}

void Api::networkChanged() { session_->dropConnections(); }

void Api::cancelAll() {
  stopPolling();
  interrupted_.set();
  MutexLock lock(pollLock_);
  for (const auto& [identifier, call] : inFlight_) call.task->cancel();
}

const char* Api::errorName(const TransportError& error) {
  return error.kind == TransportError::Kind::cancelled ? "Cancelled" : "URLError";
}

}  // namespace verdo
