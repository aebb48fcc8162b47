#pragma once

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/SecretStore.h"

#include <chrono>
#include <exception>
#include <string>
#include <utility>

namespace verdo {

/// The one queue for all work with secrets: what was asked for first is done first, so that no read
/// overtakes the write before it, and one window at a time asks the user.
SerialQueue& secretQueue();

/// To be called when the app ends, after cancelPrompt: work that has not begun is dropped, its
/// `done` with it. False when a call is still under way after `limit`; it may be left to itself.
bool endSecretWork(std::chrono::milliseconds limit);

/// Runs `work`, calls of a secret store that give a SecretStore::Result, in the background after
/// all such work before it, and then `done` with the result on the main thread, always after this
/// call has returned. Where the system has no thread for it the store counts as unavailable.
template <typename Work, typename Done>
void askSecretStore(Work work, const Done& done) {
  using Outcome = decltype(work());
  const auto unavailable = [](const std::exception& error) -> Outcome {
    return tl::make_unexpected(SecretError{SecretError::Kind::unavailable, 0, error.what()});
  };
  const auto guarded = [work = std::move(work), unavailable]() -> Outcome {
    try {
      return work();
    } catch (const std::exception& error) {
      return unavailable(error);
    }
  };
  try {
    secretQueue().post(thenOnMainThread(guarded, done));
  } catch (const std::exception& error) {
    AppLog::keychain.error(std::string("[SecretStore] nobody was asked: ") + error.what());
    MainThread::post([done, outcome = unavailable(error)] { done(outcome); });
  }
}

}  // namespace verdo
