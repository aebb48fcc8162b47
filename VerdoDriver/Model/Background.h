#pragma once

#include "VerdoDriver/Model/MainThread.h"

#include <functional>
#include <memory>
#include <string>

namespace verdo {

/// Runs `work` on a thread of its own with this name. The thread is not waited for: `work` owns
/// what it uses. Throws std::system_error when the system has no room for a thread.
void runInBackground(const std::string& name, std::function<void()> work);

/// Runs `work` on a thread of its own and then `done` with its result on the main thread. For calls
/// that may block, of which the user interface must notice nothing.
template <typename Work, typename Done>
void runInBackground(const std::string& name, Work work, Done done) {
  runInBackground(name, [work = std::move(work), done = std::move(done)]() mutable {
    // Shared, because a posted block has to be copyable and a result need not be.
    auto result = std::make_shared<decltype(work())>(work());
    MainThread::post([result, done = std::move(done)]() mutable { done(std::move(*result)); });
  });
}

}  // namespace verdo
