#include "VerdoDriverCore/Contract/SecretScrub.h"
#include "VerdoDriverCore/Jobs/LLMLines.h"
#include "VerdoDriverCore/Network/ChatRequest.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Utf8.h"
#include "fuzz/Targets.h"

#include <optional>
#include <string>

#include <openssl/evp.h>

namespace verdo::fuzz {
namespace {

constexpr std::string_view kChunk = "__LLMCHUNK__";
constexpr std::string_view kEnd = "__LLMEND__";
const std::string kKey = "sk-secret/\"key";

void checkMessage(std::string_view message) {
  require(message.find(kKey) == message.npos, "no message holds the key");
  require(repairUtf8(message) == message, "a message is UTF-8");
  require(countCharacters(message) < 1000, "a message is short");
}

/// The last line of a job, as the service reads it.
void checkEnd(std::string_view line, bool isOk) {
  require(line.starts_with(kEnd), "the end is marked");
  const JV end = parseJson(line.substr(kEnd.size()));
  require(end.find("ok") && *end.find("ok") == JV(isOk), "the end says how it went");
}

std::string decoded(std::string_view base64) {
  std::string text(base64.size() / 4 * 3, '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                   reinterpret_cast<const unsigned char*>(base64.data()),
                                   static_cast<int>(base64.size()));
  require(size >= 0, "a chunk is base64");
  const auto padding = base64.size() - base64.find_last_not_of('=') - 1;
  text.resize(static_cast<std::size_t>(size) - padding);
  return text;
}

void checkReply(const HttpResponse& response, const SecretScrub& scrub) {
  std::optional<ChatClient::Completion> completion;
  try {
    completion = ChatRequest::read(response, "model", scrub);
  } catch (const LLMCallError& error) {
    checkMessage(error.what());
    checkEnd(LLMLines::end(error.category(), error.what(), error.isRetryable()), false);
    return;
  }
  require(response.status == 200 && !completion->text.empty(), "a completion has text");
  std::string text;
  LLMLines::chunk(completion->text, [&](std::string_view line) {
    require(line.starts_with(kChunk) && line.size() <= kChunk.size() + 8000, "a chunk is marked");
    text += decoded(line.substr(kChunk.size()));
  });
  require(text == completion->text, "the chunks are the text");
  checkEnd(LLMLines::end(*completion), true);
}

void checkPayload(const std::string& text) {
  JV payload;
  try {
    payload = LLMLines::parsePayload(text);
  } catch (const PyError& error) {
    require(error.pyName() == "ValueError", "the service knows the error");
    return;
  }
  const JV body = ChatRequest::body(std::move(payload));
  require(parseJson(PyJSON::text(body)) == body, "a request is JSON");
  const JV* messages = body.find("messages");
  require(messages && messages->asArray() && !messages->asArray()->empty(), "it has a prompt");
}

}  // namespace

void provider(std::string_view bytes) {
  const SecretScrub scrub{kKey};
  const std::string body(bytes);
  for (const int status : {200, 302, 400, 401, 429, 503}) {
    const HttpResponse response{status, body};
    checkReply(response, scrub);
    const KeyCheck check = ChatRequest::readKeyCheck(response, scrub);
    require((check.verdict == KeyCheck::Verdict::accepted) == (status == 200),
            "only a success accepts the key");
    checkMessage(check.reason);
  }
  checkPayload(body);
}

}  // namespace verdo::fuzz
