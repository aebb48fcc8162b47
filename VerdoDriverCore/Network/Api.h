#pragma once

#include "VerdoDriverCore/Contract/SecretScrub.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Network/Errors.h"
#include "VerdoDriverCore/Network/HttpSession.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/JV.h"
#include "VerdoDriverCore/Values/JsonReader.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace verdo {

class FileDownload;

/// The driver's only door to the service: one method for each endpoint, each blocking its caller
/// until the reply is there. Many threads call the same Api at once.
class Api {
 public:
  using Duration = std::chrono::steady_clock::duration;
  using OnTask = std::function<void(const std::shared_ptr<HttpTask>&)>;

  struct Options {
    std::string base;                         ///< service URL; trailing "/" are removed
    std::string token;                        ///< bearer credential
    std::optional<JV> llmInfo;                ///< describes the LLM key; sent in the hello
    std::optional<std::string> clientHeader;  ///< X-VERDO-Driver-Client
    SecretScrub scrub;                        ///< what no message may hold, besides the token
    Timings timings;                          ///< of them: the time-outs and throttlePause
    /// Of the latest call, for a caller of one call at a time; null: nobody asks.
    std::shared_ptr<HttpTrace> trace;
  };

  Api(Options options, std::shared_ptr<HttpSession> session);

  /// Knows the token, too.
  const SecretScrub& scrub() const { return options_.scrub; }

  // Every endpoint throws ServerError. Its message holds no secret; apart from that it quotes the
  // service as it is: forLog() is for who writes it into a log.

  /// What the service says of itself and of us; an empty object when it said nothing.
  JV hello();
  /// Waits up to `wait` seconds for a job, naming the lanes that are busy here. Absent when the
  /// service has nothing. A reply with a job in it may have a defect: what cannot be read of one
  /// job must not end all polling. `heartbeat` is what the caller does while it waits.
  std::optional<JsonReading> poll(double wait, std::vector<std::string> busy,
                                  const HttpHeartbeat& heartbeat = {});
  /// Posts a batch of output lines (a finished LineBatch). An empty object when the service
  /// answered nothing. A throttled post (429) counts as a failed one: nothing was taken.
  /// `timeoutCap` lowers the time-out.
  JV lines(std::int64_t jobId, std::shared_ptr<const ByteBuffer> body,
           std::optional<Duration> timeoutCap = std::nullopt);
  /// Posts how a job ended. A throttled post counts as a failed one.
  void complete(std::int64_t jobId, std::int32_t exitCode, const std::optional<std::string>& error,
                std::optional<Duration> timeoutCap = std::nullopt);

  /// Downloads a file to `destination` (mode 0600) and gives its SHA-256 in lowercase hexadecimal.
  /// A URL without a scheme is a path on the service. Neither the token nor any header of ours is
  /// sent, and redirects are followed. The file is written by this thread: a slow disk slows the
  /// transfer without failing it. While the disk does not answer at all, this call does not return,
  /// cancelled or not, for nothing can end a thread that waits for a disk; no other call is held
  /// up. Nothing is left behind on failure. Throws PyError: "ValueError", "URLError", "HTTPError"
  /// or "OSError". `onTask` is given the request before it starts, by which it can be cancelled.
  std::string download(const std::string& url, const std::string& destination, Duration timeout,
                       const OnTask& onTask = {});

  /// Takes no new work: cancels the hello, poll and downloads in flight, and refuses later ones as
  /// cancelled.
  void stopPolling() EXCLUDES(pollLock_);
  /// For when the path to the service may have changed: open connections are dropped, and the
  /// requests in flight are sent anew over new ones without their callers noticing. At most once in
  /// 5 s; a call that comes too soon takes effect later. Never waits.
  void networkChanged();
  /// stopPolling(), and cancels every other request in flight. Later posts are sent as usual: a
  /// stopping driver still reports its jobs.
  void cancelAll() EXCLUDES(pollLock_);

  /// "Cancelled" or "URLError".
  static const char* errorName(const TransportError& error);

 private:
  using Headers = std::vector<std::pair<std::string, std::string>>;
  struct Call {
    const char* method = "GET";
    std::string path;
    std::shared_ptr<const ByteBuffer> body;
    Duration timeout{};
    Headers headers;
    bool untilStop = false;       ///< refused and cancelled once polling has stopped
    bool mayBringDefect = false;  ///< in a job, the reply's "job"; else a defect is a failure
    HttpHeartbeat heartbeat = {};
  };
  /// A reply that is no failure. Without an object the service had nothing to say.
  struct Reply {
    std::optional<JsonReading> object;
    std::optional<std::string> throttled;  ///< the message of a 429
  };

  Reply request(const Call& call);
  /// The reply's object, or an empty one.
  static JV objectOf(Reply reply);
  JsonReading readObject(const std::string& body, const std::string& call,
                         bool mayHaveDefect) const;
  [[noreturn]] void fail(ServerError::Kind kind, const std::string& message,
                         ServerError::Cause cause = ServerError::Cause::other) const;
  HttpResult perform(const HttpRequest& request, const Call& call);
  HttpResult performOnce(HttpRequest request, const Call& call) EXCLUDES(pollLock_);
  HttpResult performInto(FileDownload& file, HttpRequest request, const OnTask& onTask)
      EXCLUDES(pollLock_);
  void enter(const std::shared_ptr<HttpTask>& task, bool untilStop) EXCLUDES(pollLock_);
  void leave(std::int64_t identifier) EXCLUDES(pollLock_);
  Headers protocolHeaders() const;
  JV post(const std::string& path, std::shared_ptr<const ByteBuffer> body,
          std::optional<Duration> timeoutCap);

  Options options_;
  bool isBaseValid_ = false;
  std::shared_ptr<HttpSession> session_;
  Event interrupted_;
  Mutex pollLock_;
  struct InFlight {
    std::shared_ptr<HttpTask> task;
    bool untilStop = false;
  };
  std::map<std::int64_t, InFlight> inFlight_ GUARDED_BY(pollLock_);
  bool pollingStopped_ GUARDED_BY(pollLock_) = false;
};

}  // namespace verdo
