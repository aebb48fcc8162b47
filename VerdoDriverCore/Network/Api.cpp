#include "VerdoDriverCore/Network/Api.h"

#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Network/FileDownload.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <array>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

using std::chrono::seconds;

// The protocol's time-outs.
constexpr auto kHelloTimeout = seconds(20);
constexpr auto kPollMargin = seconds(20);
constexpr auto kPostTimeout = seconds(45);

constexpr std::size_t kQuotedBody = 300;  // characters of an error's body that a message quotes

[[noreturn]] void failServer(const std::string& message,
                             ServerError::Cause cause = ServerError::Cause::other) {
  throw ServerError(ServerError::Kind::server, message, cause);
}

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

/// The beginning of an error's body, for a message. Should the service quote our token in it, the
/// token is left out: messages reach the log.
std::string quoted(const std::string& body, const std::string& token) {
  constexpr std::size_t kEnough = 4 * kQuotedBody;  // a character has at most 4 bytes
  std::string text;
  for (std::size_t at = 0; at < body.size() && text.size() < kEnough;) {
    const auto found = token.empty() ? std::string::npos : body.find(token, at);
    text.append(body, at, std::min(found - at, kEnough));
    if (found == std::string::npos) break;
    text += "…";
    at = found + token.size();
  }
  return firstCharacters(text, kQuotedBody);
}

JV parseObject(const std::string& body, const std::string& call) {
  JV value;
  try {
    value = parseJson(body);
  } catch (const PyError& error) {
    failServer(fmt::format("{} -> {}", call, pyDescribe(error)));
  }
  if (!value.asObject()) failServer(call + " -> JSONDecodeError: body is not an object");
  return value;
}

}  // namespace

Api::Api(Options options, std::shared_ptr<HttpSession> session)
    : options_(std::move(options)), session_(std::move(session)) {
  options_.base = withoutTrailingSlashes(std::move(options_.base));
  // The paths of the calls are sound by construction.
  isBaseValid_ = Url::parse(options_.base).has_value();
}

JV Api::hello() {
  Call call;
  call.path = "/api/driver/hello";
  call.timeout = kHelloTimeout;
  call.untilStop = true;
  if (options_.llmInfo) {
    call.headers.emplace_back("X-VERDO-Driver-LLM", PyJSON::text(*options_.llmInfo));
  }
  return request(call).object.value_or(JV::Object{});
}

std::optional<JV> Api::poll(double wait, std::vector<std::string> busy) {
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
  call.timeout = fromSeconds(wait) + kPollMargin;
  call.untilStop = true;
  return request(call).object;
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
  call.timeout = std::min<Duration>(kPostTimeout, timeoutCap.value_or(kPostTimeout));
  Reply reply = request(call);
  if (reply.throttled) failServer(*reply.throttled);
  return reply.object ? std::move(*reply.object) : JV(JV::Object{});
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
  if (!isBaseValid_) failServer(name + " -> ValueError: bad URL");
  request.timeout = call.timeout;
  request.headers = protocolHeaders();
  request.headers.insert(request.headers.end(), call.headers.begin(), call.headers.end());
  if (call.body) {
    request.headers.emplace_back("Content-Type", "application/json");
    request.body = call.body;
  }

  const HttpResult result = perform(std::move(request), call.untilStop);
  if (result.error) {
    failServer(
        fmt::format("{} -> {}: {}", name, errorName(*result.error), result.error->description),
        result.error->kind == TransportError::Kind::streamReset ? ServerError::Cause::streamReset
                                                                : ServerError::Cause::other);
  }
  if (!result.response) failServer(name + " -> URLError: no response");
  const auto& [status, body] = *result.response;
  if (status < 400) {
    if (status == 204 || body.empty()) return {};
    return {parseObject(body, name), std::nullopt};
  }
  const std::string message =
      fmt::format("{} -> {}: {}", name, status, quoted(body, options_.token));
  switch (status) {
    case 401:
      throw ServerError(ServerError::Kind::auth, message);
    case 426:
      throw ServerError(ServerError::Kind::outOfDate, message);
    case 429:
      interrupted_.waitFor(options_.throttlePause);
      return {std::nullopt, message};
    case 413:
      failServer(message, ServerError::Cause::bodyTooLarge);
    case 408:
    case 504:
      failServer(message, ServerError::Cause::waitTooLong);
    default:
      failServer(message);
  }
}

HttpResult Api::perform(HttpRequest request, bool untilStop, const OnTask& onTask) {
  std::int64_t identifier = 0;
  const auto enter = [&](const std::shared_ptr<HttpTask>& task) {
    MutexLock lock(pollLock_);
    identifier = task->identifier();
    inFlight_.emplace(identifier, InFlight{task, untilStop});
    if (untilStop && pollingStopped_) task->cancel();
    if (onTask) onTask(task);
  };
  HttpResult result = session_->perform(std::move(request), enter);
  MutexLock lock(pollLock_);
  inFlight_.erase(identifier);
  return result;
}

std::string Api::download(const std::string& url, const std::string& destination, Duration timeout,
                          const OnTask& onTask) {
  HttpRequest request;
  request.url =
      url.starts_with("http://") || url.starts_with("https://") ? url : options_.base + url;
  if (!Url::parse(request.url)) throw PyError("ValueError", "bad file URL");
  request.timeout = timeout;
  request.followRedirects = true;
  const auto file = std::make_shared<FileDownload>(destination);
  request.sink = file;
  try {
    const HttpResult result = perform(std::move(request), true, onTask);
    if (file->failure()) throw *file->failure();
    if (result.error) throw PyError("URLError", result.error->description);
    const int status = result.response ? result.response->status : 0;
    if (status < 200 || status > 299) throw PyError("HTTPError", fmt::format("HTTP {}", status));
    return file->finish();
  } catch (const PyError&) {
    file->discard();
    throw;
  }
}

void Api::stopPolling() {
  MutexLock lock(pollLock_);
  pollingStopped_ = true;
  for (const auto& [identifier, call] : inFlight_) {
    if (call.untilStop) call.task->cancel();
  }
}

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
