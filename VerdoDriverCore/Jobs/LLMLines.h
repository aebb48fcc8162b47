#pragma once

#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Values/JV.h"

#include <functional>
#include <string>
#include <string_view>

/// How LLM jobs come and how their replies go back, in ordinary job lines.
namespace verdo::LLMLines {

/// A job's payload as an object. Throws PyError "ValueError" for what is no payload of version 1
/// with its required keys.
JV parsePayload(const std::string& text);

/// Cuts a reply into lines "__LLMCHUNK__" + up to 8,000 characters of base64; an empty one gives
/// none. Each line is gone after the call of `line`.
void chunk(std::string_view reply, const std::function<void(std::string_view)>& line);

/// The last line of a job that worked.
std::string end(const ChatClient::Completion& completion);
/// The last line of a job that did not.
std::string end(LLMCallError::Category category, const std::string& message, bool retryable);

}  // namespace verdo::LLMLines
