#pragma once

#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Platform/Linux/SecretServicePrompt.h"
#include "VerdoDriver/Platform/Linux/SecretServiceSession.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace verdo {

/// How the user is asked in the course of one action of theirs. A window that was not answered
/// stays (SecretServicePrompt), and the next action waits for that one first: there is one at most.
struct SecretPrompting {
  std::chrono::steady_clock::time_point deadline;  ///< of all windows together
  GCancellable* cancellable;                       ///< ends the waiting
  std::function<void(SecretEvent)> announce;       ///< is told of each window
};

/// Finds, reads and changes the app's items in the user's keyring, over one connection for as long
/// as the bus and the program that keeps the secrets stay. Every operation throws SecretError, or
/// std::system_error where the system has no room for a thread. Used by one thread at a time, which
/// has to use context() meanwhile.
class SecretServiceKeyring {
 public:
  /// `service` is an attribute of all items; a call, or a whole read, takes `limit` at most;
  /// `provider` is the program that has kept the secrets so far, if any; `changed` as for
  /// SecretServiceBus.
  SecretServiceKeyring(std::string service, std::chrono::milliseconds limit, std::string provider,
                       std::function<void()> changed);
  ~SecretServiceKeyring();
  SecretServiceKeyring(const SecretServiceKeyring&) = delete;
  SecretServiceKeyring& operator=(const SecretServiceKeyring&) = delete;

  const GLibContext& context() const { return context_; }
  /// The program that has kept the secrets so far: of the last write, or the last item found.
  const std::string& provider() const { return provider_; }

  std::optional<std::string> read(SecretAccount account);
  void write(const std::string& value, SecretAccount account, const SecretPrompting& prompting);
  /// False when there was nothing to remove.
  bool remove(SecretAccount account, const SecretPrompting& prompting);
  void unlock(const SecretPrompting& prompting);
  /// True when there is a default collection, which is where a new secret goes. Throws
  /// SecretServiceMissing when there is nobody to ask.
  bool hasDefaultCollection();
  /// To be called after a failure that is not `locked`: the next operation begins anew.
  void forgetSession() { session_.reset(); }

 private:
  using Paths = SecretServiceSession::Paths;
  struct Search;

  SecretServiceSession::TimePoint soon() const;
  SecretServiceSession& session(SecretServiceSession::TimePoint deadline);
  Search search(SecretAccount account, SecretServiceSession::TimePoint deadline);
  Search searchUnlocked(SecretAccount account, const SecretPrompting& prompting);
  void requireAbsent(const Search& found) const;
  bool unlockSilently(const std::string& collection, SecretServiceSession::TimePoint deadline);
  void unlockPaths(const Paths& paths, const SecretPrompting& prompting);
  bool isAsking() const;
  void settle(const SecretPrompting& prompting);
  void run(const std::string& prompt, const SecretPrompting& prompting);
  void awaitPrompt(const SecretPrompting& prompting);

  const GLibContext context_;
  const std::string service_;
  const std::chrono::milliseconds limit_;
  const std::function<void()> changed_;
  std::string provider_;
  std::unique_ptr<SecretServiceBus> bus_;
  std::unique_ptr<SecretServiceSession> session_;  ///< uses bus_
  /// The latest question; its window may still be there without an answer.
  std::unique_ptr<SecretServicePrompt> prompt_;  ///< uses bus_
};

}  // namespace verdo
