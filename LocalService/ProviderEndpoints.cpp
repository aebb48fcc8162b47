#include "LocalService/ProviderEndpoints.h"

#include "LocalService/Secret.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace verdo::local {
namespace {

using nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;
using Prepared = ProviderRules::Prepared;
using std::chrono::milliseconds;

constexpr std::size_t kBytesPerToken = 4;
constexpr const char* kInvalidRequest = "invalid_request_error";

void replyError(httplib::Response& response, int status, const std::string& message,
                const std::string& type, const ordered_json& code) {
  const ordered_json error{
      {"message", message}, {"type", type}, {"param", nullptr}, {"code", code}};
  response.status = status;
  response.set_content(jsonText({{"error", error}}), "application/json");
}

/// What of a request the answer depends on.
struct ChatRequest {
  std::string model;
  std::string prompt;           // text of the last user message
  std::size_t promptBytes = 0;  // of all messages
};

/// Throws HttpError 400 that says what is wrong.
ChatRequest readRequest(const std::string& body) {
  const auto json = parseJson(body);
  const auto model = json.is_object() ? json.find("model") : json.end();
  if (model == json.end() || !model->is_string()) {
    throw HttpError(400, "the body must be an object with a text \"model\"");
  }
  const auto messages = json.find("messages");
  if (messages == json.end() || !messages->is_array() || messages->empty()) {
    throw HttpError(400, "\"messages\" must be a list of at least one message");
  }
  ChatRequest request{.model = model->get<std::string>(), .prompt = {}};
  for (const auto& message : *messages) {
    if (!message.is_object() || !message.contains("role") || !message.contains("content")) {
      throw HttpError(400, "every message must be an object with \"role\" and \"content\"");
    }
    const auto& content = message["content"];
    auto text = content.is_string() ? content.get<std::string>() : jsonText(content);
    request.promptBytes += text.size();
    if (message["role"] == "user") request.prompt = std::move(text);
  }
  return request;
}

std::size_t tokens(std::size_t bytes) { return (bytes + kBytesPerToken - 1) / kBytesPerToken; }

/// Put together as text, so that a content of megabytes is made into JSON once and not for every
/// answer.
std::string completion(const ProviderRule& rule, const std::string& preparedContent,
                       const ChatRequest& request, std::uint64_t number) {
  const auto echo = rule.content ? std::string() : "echo: " + request.prompt;
  const auto promptTokens = tokens(request.promptBytes);
  const auto replyTokens = tokens(rule.content ? rule.content->size() : echo.size());
  const ordered_json counted{{"prompt_tokens", promptTokens},
                             {"completion_tokens", replyTokens},
                             {"total_tokens", promptTokens + replyTokens}};
  std::string text;
  const auto add = [&](std::string_view key, const auto& value) {
    if (std::ranges::find(rule.omit, key) != rule.omit.end()) return;
    text.append(text.empty() ? "{\"" : ",\"").append(key).append("\":").append(value);
  };
  add("id", "\"chatcmpl-" + std::to_string(number) + "\"");
  add("object", R"("chat.completion")");
  add("created", std::to_string(std::time(nullptr)));
  add("model", jsonText(rule.model.value_or(request.model)));
  add("choices", R"([{"index":0,"message":{"role":"assistant","content":)" +
                     (rule.content ? preparedContent : jsonText(echo)) + R"(},"finish_reason":)" +
                     (rule.finishReason ? jsonText(*rule.finishReason) : "null") + "}]");
  add("usage", jsonText(rule.usage.is_null() ? counted : rule.usage));
  return text.empty() ? "{}" : text + "}";
}

/// False: the client went away or the service stops.
bool waitUntil(const Connection& connection, Clock::time_point time) {
  while (true) {
    const auto left = std::chrono::ceil<milliseconds>(time - Clock::now());
    if (left.count() <= 0) return true;
    // In pieces, as "never" is farther away than a wait can be.
    if (connection.wait(std::min<milliseconds>(left, std::chrono::hours(1))) !=
        Connection::Wake::timeout) {
      return false;
    }
  }
}

/// Sends `response` with blank lines in front of its body until `end`. False as above.
bool keepAlive(Connection& connection, const httplib::Response& response, const ProviderRule& rule,
               Clock::time_point end) {
  if (rule.untilClose) {
    connection.takeOverAndEnd();
  } else {
    connection.takeOver();
  }
  const auto send = [&](std::string_view bytes) {
    if (rule.untilClose) return connection.send(bytes);
    std::ostringstream chunk;
    chunk << std::hex << bytes.size() << "\r\n" << bytes << "\r\n";
    return connection.send(chunk.str());
  };
  const auto head =
      "HTTP/1.1 " + std::to_string(response.status) + " \r\nContent-Type: application/json\r\n" +
      (rule.untilClose ? "Connection: close" : "Transfer-Encoding: chunked") + "\r\n\r\n";
  if (!connection.send(head)) return false;
  for (auto next = Clock::now(); next < end; next += rule.keepAlive) {
    if (!waitUntil(connection, next) || !send("\n")) return false;
  }
  if (!waitUntil(connection, end)) return false;
  if (!response.body.empty() && !send(response.body)) return false;
  return rule.untilClose || connection.send("0\r\n\r\n");
}

}  // namespace

ProviderEndpoints::ProviderEndpoints(ProviderRules& rules, std::string key)
    : rules_(rules), key_(std::move(key)) {
  if (key_.empty()) throw std::invalid_argument("the provider key must not be empty");
}

std::optional<Route> ProviderEndpoints::match(std::string_view method, std::string_view path) {
  if (!path.starts_with(kPrefix)) return std::nullopt;
  path.remove_prefix(kPrefix.size());
  if (method == "POST" && path == "/v1/chat/completions") {
    return Route{.endpoint = "chat", .jobId = {}, .handle = [this](Exchange& exchange) {
                   if (authorized(exchange)) chat(exchange);
                 }};
  }
  if (method == "GET" && path == "/models") {
    return Route{.endpoint = "models", .jobId = {}, .handle = [this](Exchange& exchange) {
                   if (!authorized(exchange)) return;
                   const ordered_json model{
                       {"id", "local-model"}, {"object", "model"}, {"owned_by", "local"}};
                   replyJson(exchange.response,
                             {{"object", "list"}, {"data", ordered_json::array({model})}});
                 }};
  }
  return std::nullopt;
}

bool ProviderEndpoints::authorized(Exchange& exchange) const {
  if (isBearer(exchange.request.get_header_value("Authorization"), key_)) return true;
  replyError(exchange.response, 401, "this is not the key that the provider accepts",
             kInvalidRequest, "invalid_api_key");
  return false;
}

void ProviderEndpoints::chat(Exchange& exchange) {
  auto& response = exchange.response;
  ChatRequest request;
  try {
    request = readRequest(exchange.request.body);
  } catch (const HttpError& error) {
    return replyError(response, error.status(), error.what(), kInvalidRequest, nullptr);
  }
  auto prepared = rules_.pick(exchange.request.body);
  static const auto byDefault = std::make_shared<const Prepared>();
  if (!prepared) prepared = byDefault;
  const auto& rule = prepared->rule;
  const auto end = rule.never ? Clock::time_point::max() : Clock::now() + rule.delay;
  const bool streamed = rule.keepAlive.count() > 0;
  if (!streamed && !waitUntil(exchange.connection, end)) {
    exchange.abandoned = true;
    return;
  }

  response.status = rule.status;
  if (!rule.body && rule.status >= 400) {
    replyError(
        response, rule.status,
        rule.content.value_or("the provider answers with status " + std::to_string(rule.status)),
        rule.status < 500 ? kInvalidRequest : "server_error", nullptr);
  } else {
    response.set_header("Content-Type", "application/json");
    response.body =
        rule.body ? *rule.body : completion(rule, prepared->contentJson, request, ++completions_);
  }
  if (streamed) {
    exchange.stream = [&exchange, prepared, end] {
      return keepAlive(exchange.connection, exchange.response, prepared->rule, end);
    };
  }
}

}  // namespace verdo::local
