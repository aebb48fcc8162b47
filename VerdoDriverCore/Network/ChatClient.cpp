#include "VerdoDriverCore/Network/ChatClient.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/Network/ChatRequest.h"
#include "VerdoDriverCore/Network/JsonBody.h"
#include "VerdoDriverCore/Values/PyValue.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>

#include <fmt/format.h>

namespace verdo {
namespace {

using Category = LLMCallError::Category;

using std::chrono::seconds;

constexpr double kDefaultBudget = 600;  // seconds
constexpr auto kMinTimeForRetry = seconds(10);
constexpr auto kMaxRetryPause = seconds(2);
constexpr int kAttempts = 2;
constexpr auto kValidationTimeout = seconds(20);
/// A reply has to fit into memory several times over; beyond this size it is none.
constexpr std::size_t kMaxReply = 256u << 20;

/// True for http(s)://host[:port][/path], and nothing else.
bool isBaseUrl(const std::string& text) {
  const auto url = Url::parse(text);
  return url && !url->hasUserInfo() && !url->hasQueryOrFragment();
}

std::string checkedBase(const std::string& value) {
  std::string base = value.empty() ? DriverConstants::llmDefaultBase : value;
  if (!isBaseUrl(base)) {
    throw PyError("ValueError",
                  fmt::format("LLM base URL must be http(s)://host[:port][/path], got {}",
                              withoutUserInfo(value)));
  }
  return withoutTrailingSlashes(std::move(base));
}

double budgetOf(const JV& payload) {
  const JV* value = payload.find("timeout_seconds");
  const double budget = value ? value->number().value_or(0) : 0;
  return budget == 0 ? kDefaultBudget : budget;
}

std::size_t promptCharacters(const JV& payload) {
  std::size_t count = 0;
  for (const char* key : {"prompt", "system"}) {
    const JV* value = payload.find(key);
    const auto* text = value ? value->asString() : nullptr;
    count += text ? countCharacters(*text) : countCharacters(pyStrIfTruthy(value).value_or(""));
  }
  return count;
}

SecretScrub withSecret(SecretScrub scrub, const std::string& secret) {
  scrub.add(secret);
  return scrub;
}

std::int64_t wholeSeconds(ChatClient::Duration duration) {
  return std::chrono::duration_cast<seconds>(duration).count();
}

}  // namespace

const char* nameOf(Category category) {
  switch (category) {
    case Category::transient:
      return "transient";
    case Category::permission:
      return "permission";
    case Category::validation:
      return "validation";
    case Category::config:
      break;
  }
  return "config";
}

ChatClient::ChatClient(std::string apiKey, const std::string& baseURL, Log log,
                       std::shared_ptr<HttpSession> session, SecretScrub scrub)
    : key_(std::move(apiKey)),
      base_(checkedBase(baseURL)),
      log_(std::move(log)),
      session_(std::move(session)),
      scrub_(withSecret(std::move(scrub), key_)) {}

ChatClient::Completion ChatClient::complete(JV payload, const HttpHeartbeat& heartbeat) {
  const double budget = budgetOf(payload);
  const auto start = Clock::now();
  const auto deadline = start + fromSeconds(budget);
  const std::string role = pyStrIfTruthy(payload.find("role")).value_or("?");
  if (start >= deadline) {
    throw LLMCallError(
        Category::transient,
        fmt::format("call budget of {}s exhausted", wholeSeconds(fromSeconds(budget))), true);
  }
  const std::string model = pyStr(payload.find("model")).value_or("");
  const std::size_t promptSize = promptCharacters(payload);
  // The prompt is moved into it, and kept there alone.
  const auto body = std::make_shared<const JsonBody>(ChatRequest::body(std::move(payload)));
  for (int attempt = 1;; ++attempt) {
    const auto begin = attempt == 1 ? start : Clock::now();
    const auto elapsed = [&] { return toSeconds(Clock::now() - begin); };
    try {
      const HttpResponse response =
          http("POST", "/v1/chat/completions", body, deadline - begin, heartbeat);
      Completion completion = ChatRequest::read(response, model, scrub_);
      say(fmt::format("llm {}: model={} prompt_chars={} reply_chars={} {:.1f}s attempt={}", role,
                      completion.model, promptSize, countCharacters(completion.text), elapsed(),
                      attempt));
      return completion;
    } catch (const LLMCallError& error) {
      say(fmt::format("llm {}: attempt {} failed after {:.1f}s ({}{}): {}", role, attempt,
                      elapsed(), nameOf(error.category()), error.isRetryable() ? ", retryable" : "",
                      error.what()));
      const auto remaining = deadline - Clock::now();
      if (attempt == kAttempts || !error.isRetryable() || remaining < kMinTimeForRetry) throw;
      cancelledEvent_.waitFor(std::min<Duration>(remaining / 4, kMaxRetryPause));
    }
    throwIfCancelled();
  }
}

KeyCheck ChatClient::validate() try {
  return ChatRequest::readKeyCheck(http("GET", "/models", nullptr, kValidationTimeout, {}), scrub_);
} catch (const Error& error) {
  return {KeyCheck::Verdict::unreachable, fmt::format("unreachable: {}", error.what())};
}

HttpResponse ChatClient::http(const char* method, const std::string& path,
                              std::shared_ptr<const HttpBodySource> body, Duration timeout,
                              const HttpHeartbeat& heartbeat) {
  HttpRequest request;
  request.method = method;
  request.url = base_ + path;
  request.headers = {{"Authorization", "Bearer " + key_}, {"Accept", "application/json"}};
  if (body) request.headers.emplace_back("Content-Type", "application/json");
  request.source = std::move(body);
  request.timeout = timeout;
  // Absolute as well: providers send blank lines to keep a connection alive.
  request.deadline = Clock::now() + timeout;
  request.maxBody = kMaxReply;

  const auto enter = [this](const std::shared_ptr<HttpTask>& task) {
    MutexLock lock(lock_);
    task_ = task;
    if (cancelledEvent_.isSet()) task->cancel();
  };
  HttpResult result = session_->perform(std::move(request), enter, heartbeat);
  if (result) return *std::move(result);
  throwIfCancelled();
  if (result.error().kind == TransportError::Kind::timedOut) {
    throw LLMCallError(Category::transient,
                       fmt::format("provider timed out after {}s", wholeSeconds(timeout)), true);
  }
  throw LLMCallError(Category::transient,
                     fmt::format("provider unreachable: {}: {}", Api::errorName(result.error()),
                                 scrub_.scrubbed(result.error().description)),
                     true);
}

void ChatClient::cancel() {
  cancelledEvent_.set();
  MutexLock lock(lock_);
  if (task_) task_->cancel();
}

void ChatClient::say(const std::string& text) const { log_(forLog(scrub_.scrubbed(text))); }

void ChatClient::throwIfCancelled() {
  if (cancelledEvent_.isSet()) throw LLMCancelled();
}

}  // namespace verdo
