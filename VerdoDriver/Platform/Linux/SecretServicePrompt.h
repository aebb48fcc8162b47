#pragma once

#include "VerdoDriver/Platform/Linux/SecretServiceBus.h"

#include <string>

namespace verdo {

/// Has a prompt of the Secret Service shown, and waits for its end. Returns when the user has
/// allowed what was asked. Throws SecretError, `locked` when the user refused, `deadline` passed or
/// `cancellable` was cancelled first, `unavailable` when the service went away. A prompt that was
/// not answered is dismissed: no window stays behind. The
/// thread uses a GLibContext of its own.
void runSecretPrompt(SecretServiceBus& bus, const std::string& owner, const std::string& prompt,
                     SecretServiceBus::TimePoint deadline, GCancellable* cancellable);

}  // namespace verdo
