#pragma once

#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Values/JV.h"

/// The provider's wire format: what a payload becomes on the way out, and what a reply means.
namespace verdo::ChatRequest {

/// The body of a chat-completion request for a job's payload, whose texts are moved into it.
JV body(JV payload);

/// Reads a reply with its status. Throws LLMCallError for everything but a completion with text;
/// its message quotes the provider, scrubbed. `model` is the one that was asked for.
ChatClient::Completion read(const HttpResponse& response, const std::string& model,
                            const SecretScrub& scrub);

/// What a reply to the question for the provider's models says of the key. The reason quotes the
/// provider, scrubbed.
KeyCheck readKeyCheck(const HttpResponse& response, const SecretScrub& scrub);

}  // namespace verdo::ChatRequest
