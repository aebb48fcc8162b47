#pragma once

#include "VerdoDriverCore/Contract/SecretScrub.h"
#include "VerdoDriverCore/Network/HttpSession.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/JV.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace verdo {

/// A provider call that failed, as the service wants to hear of it.
class LLMCallError : public Error {
 public:
  enum class Category {
    transient,   ///< the provider, or the way to it
    permission,  ///< the key
    validation,  ///< the request
    config,      ///< how this driver, or the job's role, is set up
  };

  LLMCallError(Category category, const std::string& message, bool retryable)
      : Error(message), category_(category), retryable_(retryable) {}
  Category category() const { return category_; }
  /// Whether another attempt may succeed.
  bool isRetryable() const { return retryable_; }
  std::string pyName() const override { return "LLMCallError"; }

 private:
  Category category_;
  bool retryable_;
};

/// The category as the service and the log spell it.
const char* nameOf(LLMCallError::Category category);

/// What the provider says of a key.
struct KeyCheck {
  enum class Verdict { accepted, rejected, unreachable };
  Verdict verdict = Verdict::accepted;
  std::string reason;  ///< "unreachable: {reason}", for a person; empty for the other verdicts
};

/// A provider call that was cancelled from another thread.
class LLMCancelled : public Error {
 public:
  LLMCancelled() : Error("cancelled") {}
  std::string pyName() const override { return "LLMCancelled"; }
};

/// Calls an OpenAI-style chat-completion provider with the user's key. One call at a time, on the
/// caller's thread; cancel() may come from any thread.
class ChatClient {
 public:
  using Log = std::function<void(const std::string&)>;
  using Duration = std::chrono::steady_clock::duration;

  /// What the provider answered.
  struct Completion {
    std::string text;
    std::string model;        ///< as the provider named it, else as the payload did
    std::optional<JV> usage;  ///< the provider's "usage"; a number beyond the doubles is null in it
  };

  /// `baseURL` is http(s)://host[:port][/path]; empty means the default provider. `log` gets one
  /// line for each attempt, safe to be logged as it is. `scrub` knows what else than the key no
  /// message may hold. Throws PyError "ValueError" for another form of base URL.
  ChatClient(std::string apiKey, const std::string& baseURL, Log log,
             std::shared_ptr<HttpSession> session, SecretScrub scrub = {});

  /// One completion within the payload's time budget ("timeout_seconds", 600 s when absent or
  /// zero), with at most one retry, and none when less than 10 s are left. While the provider
  /// thinks, the caller runs `heartbeat`. Throws LLMCallError, LLMCancelled, or what `heartbeat`
  /// throws.
  Completion complete(JV payload, const HttpHeartbeat& heartbeat = {}) EXCLUDES(lock_);
  /// Asks the provider whether it takes the key.
  KeyCheck validate() EXCLUDES(lock_);
  /// Ends the call in flight at once and refuses later ones.
  void cancel() EXCLUDES(lock_);

 private:
  using Clock = std::chrono::steady_clock;

  HttpResponse http(const char* method, const std::string& path,
                    std::shared_ptr<const HttpBodySource> body, Duration timeout,
                    const HttpHeartbeat& heartbeat) EXCLUDES(lock_);
  void throwIfCancelled() EXCLUDES(lock_);
  void say(const std::string& text) const;

  const std::string key_;
  const std::string base_;  ///< without a trailing "/"
  const Log log_;
  const std::shared_ptr<HttpSession> session_;
  const SecretScrub scrub_;
  Event cancelledEvent_;
  Mutex lock_;
  std::shared_ptr<HttpTask> task_
      GUARDED_BY(lock_);  ///< the latest; cancelling an ended one is harmless
};

}  // namespace verdo
