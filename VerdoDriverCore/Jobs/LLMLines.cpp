#include "VerdoDriverCore/Jobs/LLMLines.h"

#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <array>

#include <fmt/format.h>
#include <openssl/evp.h>

namespace verdo::LLMLines {
namespace {

constexpr std::string_view kChunkMarker = "__LLMCHUNK__";
constexpr std::string_view kEndMarker = "__LLMEND__";
constexpr std::size_t kChunkCharacters = 8000;
constexpr std::size_t kChunkBytes = kChunkCharacters / 4 * 3;

std::string endLine(JV::Object result) {
  return std::string(kEndMarker) + PyJSON::text(std::move(result));
}

}  // namespace

JV parsePayload(const std::string& text) {
  JV payload;
  try {
    payload = parseJson(text);
  } catch (const PyError&) {
    // The place is always the first: it is the text that the service knows.
    throw PyError("ValueError", "Expecting value: line 1 column 1 (char 0)");
  }
  if (!payload.asObject()) throw PyError("ValueError", "payload is not a JSON object");
  const JV* version = payload.find("v");
  if (!version || version->number() != 1.0) {
    throw PyError("ValueError",
                  "unsupported payload version " + PyJSON::pyRepr(pyStr(version).value_or("None")));
  }
  for (const char* key : {"model", "prompt"}) {
    if (!pyTruthy(payload.find(key))) throw PyError("ValueError", fmt::format("missing {}", key));
  }
  return payload;
}

void chunk(std::string_view reply, const std::function<void(std::string_view)>& line) {
  std::string text(kChunkMarker);
  while (!reply.empty()) {
    const std::string_view piece = reply.substr(0, kChunkBytes);
    reply.remove_prefix(piece.size());
    std::array<unsigned char, kChunkCharacters + 1> base64;
    const int size =
        EVP_EncodeBlock(base64.data(), reinterpret_cast<const unsigned char*>(piece.data()),
                        static_cast<int>(piece.size()));
    text.resize(kChunkMarker.size());
    text.append(reinterpret_cast<const char*>(base64.data()), static_cast<std::size_t>(size));
    line(text);
  }
}

std::string end(const ChatClient::Completion& completion) {
  return endLine(
      {{"ok", true}, {"model", completion.model}, {"usage", completion.usage.value_or(JV())}});
}

std::string end(LLMCallError::Category category, const std::string& message, bool retryable) {
  return endLine({{"ok", false},
                  {"category", nameOf(category)},
                  {"message", message},
                  {"retryable", retryable}});
}

}  // namespace verdo::LLMLines
