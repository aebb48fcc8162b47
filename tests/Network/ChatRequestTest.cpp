#include "VerdoDriverCore/Jobs/LLMLines.h"
#include "VerdoDriverCore/Network/ChatRequest.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "tests/Support/FailureOf.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace verdo::test {
namespace {

const std::string kKey = "s3cret/";

/// How the reading of a reply ends: "text|model|usage", or "category retryable?: message".
std::string outcome(int status, const std::string& body) {
  try {
    const auto completion = ChatRequest::read({status, body}, "asked", SecretScrub{kKey});
    return fmt::format("{}|{}|{}", completion.text, completion.model,
                       completion.usage ? PyJSON::text(*completion.usage) : "none");
  } catch (const LLMCallError& error) {
    return fmt::format("{}{}: {}", nameOf(error.category()),
                       error.isRetryable() ? " retryable" : "", error.what());
  }
}

TEST(ChatRequest, SendsWhatThePayloadDidNotAskFor) {
  const std::pair<const char*, const char*> table[] = {
      {R"({"model": "m", "prompt": "p"})",
       R"({"model": "m", "messages": [{"role": "user", "content": "p"}], "stream": false})"},
      {R"({"model": "m", "prompt": "é", "system": "s", "max_tokens": "12", "temperature": 1,
           "json_mode": 1, "thinking": false, "reasoning_effort": "high"})",
       R"({"model": "m", "messages": [{"role": "system", "content": "s"}, )"
       R"({"role": "user", "content": "\u00e9"}], "max_tokens": 12, "temperature": 1.0, )"
       R"("stream": false, "response_format": {"type": "json_object"}, )"
       R"("thinking": {"type": "disabled"}, "reasoning_effort": "high"})"},
      {R"({"model": "m", "prompt": "p", "system": "", "max_tokens": 0, "temperature": null,
           "json_mode": "", "thinking": true})",
       R"({"model": "m", "messages": [{"role": "user", "content": "p"}], "stream": false, )"
       R"("thinking": {"type": "enabled"}})"},
      {R"({"model": "m", "prompt": "p", "max_tokens": 1.5, "temperature": true,
           "thinking": null, "reasoning_effort": null})",
       R"({"model": "m", "messages": [{"role": "user", "content": "p"}], "stream": false})"}};
  for (const auto& [payload, body] : table) {
    EXPECT_EQ(PyJSON::text(ChatRequest::body(parseJson(payload))), body);
  }
}

TEST(ChatRequest, KeepsThePromptTwice) {
  JV payload = parseJson(R"({"model": "m", "prompt": "a long enough text to lie apart"})");
  const char* text = payload.find("prompt")->asString()->data();
  const JV body = ChatRequest::body(std::move(payload));
  const JV& message = body.find("messages")->asArray()->front();
  EXPECT_EQ(message.find("content")->asString()->data(), text) << "copied";
}

TEST(ChatRequest, MisjudgesAReply) {
  const std::string longBody(500, 'x');
  const std::string cut(200, 'x');
  const struct {
    int status;
    std::string body;
    std::string expected;
  } table[] = {
      {200, R"({"choices": [{"message": {"content": "hi"}}], "model": "m", "usage": {"n": 1}})",
       R"(hi|m|{"n": 1})"},
      {200, R"({"choices": [{"message": {"content": "hi"}}]})", "hi|asked|none"},
      {200, R"({"choices": [{"message": {"content": "hi"}}], "usage": {"n": -1e400, "m": 1}})",
       R"(hi|asked|{"n": null, "m": 1})"},
      {401, "", "permission: provider rejected the key (HTTP 401)"},
      {429, longBody, "transient retryable: provider HTTP 429: " + cut},
      {500, "\xff", "transient retryable: provider HTTP 500: \xEF\xBF\xBD"},
      {404, "no", "validation: provider HTTP 404: no"},
      {204, "", "transient: unexpected provider HTTP 204"},
      {200, "[]", "transient retryable: unreadable provider reply: JSON value is not an object"},
      {200, R"({"choices": [{"finish_reason": "length", "message": {"content": ""}}]})",
       "config: empty completion (finish_reason=length) — raise the role's max_tokens or disable "
       "thinking"},
      {200, R"({"choices": [{"finish_reason": "stop", "message": {"content": null}}]})",
       "transient retryable: empty completion (finish_reason=stop)"},
      {200, R"({"choices": []})", "transient retryable: empty completion (finish_reason=None)"},
      {200, R"({"choices": {"0": 1}})",
       "transient retryable: empty completion (finish_reason=None)"},
      {200, R"({"choices": [[1]]})", "transient retryable: empty completion (finish_reason=None)"},
  };
  for (const auto& row : table) EXPECT_EQ(outcome(row.status, row.body), row.expected);
  // The key.
  const std::string cutKey(198, 'x');
  EXPECT_EQ(outcome(400, "wrong key s3cret%2f or " + kKey),
            "validation: provider HTTP 400: wrong key … or …");
  EXPECT_EQ(outcome(400, cutKey + kKey + "y"), "validation: provider HTTP 400: " + cutKey + "…y");
  EXPECT_THAT(outcome(200, '"' + kKey), testing::Not(testing::HasSubstr("s3c")));
  EXPECT_EQ(outcome(200, R"({"choices": [{"finish_reason": ")" + kKey + longBody + R"("}]})"),
            "transient retryable: empty completion (finish_reason=…" + cut.substr(1) + ")");
  EXPECT_THAT(outcome(200, "{"),
              testing::StartsWith("transient retryable: unreadable provider reply: "));
}

TEST(LLMLines, AcceptsABadPayloadOrHidesWhatIsWrong) {
  const std::pair<const char*, const char*> table[] = {
      {"", "Expecting value: line 1 column 1 (char 0)"},
      {"{\"v\": 1,", "Expecting value: line 1 column 1 (char 0)"},
      {"[1]", "payload is not a JSON object"},
      {R"({"v": true})", "unsupported payload version 'True'"},
      {R"({"v": "1"})", "unsupported payload version '1'"},
      {R"({"v": 1, "prompt": "p"})", "missing model"},
      {R"({"v": 1.0, "model": "m", "prompt": ""})", "missing prompt"}};
  for (const auto& [payload, message] : table) {
    EXPECT_EQ(failureOf([&] { LLMLines::parsePayload(payload); }),
              std::string("ValueError: ") + message);
  }
  EXPECT_NO_THROW(LLMLines::parsePayload(R"({"v": 1, "model": "m", "prompt": "p"})"));
}

}  // namespace
}  // namespace verdo::test
