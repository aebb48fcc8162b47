#pragma once

#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include <string>
#include <utility>

namespace verdo {

/// Nobody is there who keeps secrets: no bus, or no such program on it. Always `unavailable`.
struct SecretServiceMissing : SecretError {
  explicit SecretServiceMissing(std::string why)
      : SecretError{SecretError::Kind::unavailable, 0, std::move(why)} {}
};

/// What a failed call means: `unavailable` when nobody is there or answers in time, `locked` when
/// the service says so, otherwise `failed`. Leaves the words of the service in the log at debug
/// level. `error` may be null.
SecretError secretErrorOf(const GError* error);

/// The user has to allow it first.
SecretError secretLockedError();

/// Nobody answered before the time was over.
SecretError secretTimeoutError();

}  // namespace verdo
