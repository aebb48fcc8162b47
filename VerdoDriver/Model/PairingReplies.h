#pragma once

#include "VerdoDriver/Model/PairingTypes.h"

#include <string>

#include <tl/expected.hpp>

/// Reads the server's replies to the calls of a pairing. What an error says never quotes a secret.
namespace verdo::PairingReplies {

/// The reply to a request to pair: all of its members have to be there.
[[nodiscard]] tl::expected<PairingStart, PairingError> readStart(const std::string& body);

/// The reply to a poll. Approved only together with a token.
[[nodiscard]] tl::expected<PairingPoll, PairingError> readPoll(const std::string& body);

/// What a reply with a status outside of 200–299 means.
[[nodiscard]] PairingError readFailure(int status, const std::string& body);

}  // namespace verdo::PairingReplies
