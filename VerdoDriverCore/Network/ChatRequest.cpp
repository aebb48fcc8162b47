#include "VerdoDriverCore/Network/ChatRequest.h"

#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <utility>

#include <fmt/format.h>

namespace verdo::ChatRequest {
namespace {

using Category = LLMCallError::Category;

// Characters of what a message quotes.
constexpr std::size_t kExcerpt = 200;
constexpr std::size_t kKeyCheckExcerpt = 120;

JV message(const char* role, JV content) {
  // Built member by member: what stands in a braced list is copied out of it.
  JV::Object object;
  object.push_back({"role", role});
  object.push_back({"content", pyStr(std::move(content)).value_or("")});
  return object;
}

JV messages(JV& payload) {
  JV::Array list;
  if (JV system = payload.take("system"); pyTruthy(&system)) {
    list.push_back(message("system", std::move(system)));
  }
  list.push_back(message("user", payload.take("prompt")));
  return list;
}

[[noreturn]] void failStatus(int status, const std::string& body, const SecretScrub& scrub) {
  if (status == 401 || status == 403) {
    throw LLMCallError(Category::permission,
                       fmt::format("provider rejected the key (HTTP {})", status), false);
  }
  if (status < 400) {
    throw LLMCallError(Category::transient, fmt::format("unexpected provider HTTP {}", status),
                       false);
  }
  const bool transient = status == 429 || status >= 500;
  throw LLMCallError(transient ? Category::transient : Category::validation,
                     fmt::format("provider HTTP {}: {}", status, scrub.excerpt(body, kExcerpt)),
                     transient);
}

JV parseReply(const std::string& body, const SecretScrub& scrub) {
  JV reply;
  try {
    // The answer holds no number, and the rest only accompanies it.
    reply = parseJson(body, HugeNumber::isNull);
  } catch (const PyError& error) {
    throw LLMCallError(Category::transient,
                       fmt::format("unreadable provider reply: {}", scrub.scrubbed(error.what())),
                       true);
  }
  if (!reply.asObject()) {
    throw LLMCallError(Category::transient,
                       "unreadable provider reply: JSON value is not an object", true);
  }
  return reply;
}

/// The member of a value that may be missing itself.
const JV* member(const JV* value, const char* key) { return value ? value->find(key) : nullptr; }

const JV* firstChoice(const JV& reply) {
  const JV* choices = reply.find("choices");
  const auto* list = choices ? choices->asArray() : nullptr;
  return list && !list->empty() ? &list->front() : nullptr;
}

}  // namespace

JV body(JV payload) {
  JV::Object request;
  request.push_back({"model", pyStr(payload.find("model")).value_or("")});
  request.push_back({"messages", messages(payload)});
  if (const JV* tokens = payload.find("max_tokens"); pyTruthy(tokens)) {
    if (const auto count = pyInt(tokens)) request.push_back({"max_tokens", *count});
  }
  const JV* temperature = payload.find("temperature");
  if (const auto degree = temperature ? temperature->number() : std::nullopt) {
    request.push_back({"temperature", *degree});
  }
  request.push_back({"stream", false});
  if (pyTruthy(payload.find("json_mode"))) {
    request.push_back({"response_format", JV::Object{{"type", "json_object"}}});
  }
  if (const JV* thinking = payload.find("thinking"); thinking && !thinking->isNull()) {
    request.push_back(
        {"thinking", JV::Object{{"type", pyTruthy(thinking) ? "enabled" : "disabled"}}});
  }
  if (const JV* effort = payload.find("reasoning_effort"); effort && !effort->isNull()) {
    request.push_back({"reasoning_effort", *effort});
  }
  return request;
}

ChatClient::Completion read(const HttpResponse& response, const std::string& model,
                            const SecretScrub& scrub) {
  if (response.status != 200) failStatus(response.status, response.body, scrub);
  const JV reply = parseReply(response.body, scrub);
  const JV* choice = firstChoice(reply);
  const JV* content = member(member(choice, "message"), "content");
  const auto* text = content ? content->asString() : nullptr;
  if (!text || text->empty()) {
    const std::string reason = pyStr(member(choice, "finish_reason")).value_or("None");
    if (reason == "length") {
      throw LLMCallError(Category::config,
                         "empty completion (finish_reason=length) — raise the role's max_tokens or "
                         "disable thinking",
                         false);
    }
    throw LLMCallError(
        Category::transient,
        fmt::format("empty completion (finish_reason={})", scrub.excerpt(reason, kExcerpt)), true);
  }
  ChatClient::Completion completion;
  completion.text = *text;
  completion.model = pyStrIfTruthy(reply.find("model")).value_or(model);
  if (const JV* usage = reply.find("usage")) completion.usage = *usage;
  return completion;
}

KeyCheck readKeyCheck(const HttpResponse& response, const SecretScrub& scrub) {
  if (response.status == 200) return {};
  if (response.status == 401 || response.status == 403) return {KeyCheck::Verdict::rejected, {}};
  return {KeyCheck::Verdict::unreachable,
          fmt::format("unreachable: HTTP {} {}", response.status,
                      scrub.excerpt(response.body, kKeyCheckExcerpt))};
}

}  // namespace verdo::ChatRequest
