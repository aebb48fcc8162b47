#pragma once

#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/SecretStore.h"

#include <system_error>

namespace verdo {

/// Runs `work`, calls of a secret store that give a SecretStore::Result, in the background, and
/// then `done` with the result on the main thread. Without a thread for it the store counts as
/// unavailable, and `done` is called at once.
template <typename Work, typename Done>
void askSecretStore(const Work& work, const Done& done) {
  try {
    runInBackground("verdo-secrets", work, done);
  } catch (const std::system_error& error) {
    done(decltype(work())(tl::make_unexpected(
        SecretError{SecretError::Kind::unavailable, error.code().value(), error.what()})));
  }
}

}  // namespace verdo
