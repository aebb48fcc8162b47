#pragma once

#include "VerdoDriverCore/Network/HttpTrace.h"
#include "VerdoDriverCore/System/ByteBuffer.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tl/expected.hpp>

namespace verdo {

/// Takes the bytes of a response as they arrive, instead of having them collected. Called on the
/// session's thread, never concurrently: must not block, least of all for a disk.
class HttpBodySink {
 public:
  virtual ~HttpBodySink() = default;
  /// False when there is no room: the transfer is paused, its inactivity time-out as well, until
  /// HttpTask::resume() is called; then the same bytes come again. `status` is that of the final
  /// response.
  virtual bool onBytes(int status, std::string_view bytes) = 0;
};

/// The body of a request, made while it is sent instead of lying in memory. Any number of readings
/// may go on at once.
class HttpBodySource {
 public:
  /// Writes the next bytes to `out`, `room` of them at most; gives how many, 0 at the end. Called
  /// on the session's thread: must not block, and must not throw.
  using Read = std::function<std::size_t(char* out, std::size_t room)>;

  virtual ~HttpBodySource() = default;
  virtual std::size_t size() const = 0;
  /// Begins a reading; this must outlive it.
  virtual Read open() const = 0;
};

struct HttpRequest {
  using Clock = std::chrono::steady_clock;

  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;  ///< sent in this order
  std::shared_ptr<const ByteBuffer> body;                    ///< null: none
  std::shared_ptr<const HttpBodySource> source;              ///< a body in place of `body`, or null
  Clock::duration timeout = std::chrono::seconds(60);        ///< inactivity: restarts as data moves
  /// Absolute, whatever data moves; absent: the session's resource limit.
  std::optional<Clock::time_point> deadline;
  bool followRedirects = false;
  std::size_t maxBody = 64u << 20;     ///< a longer collected body is an error, bytes
  std::shared_ptr<HttpBodySink> sink;  ///< null: the body is collected in the response
  std::shared_ptr<HttpTrace> trace;    ///< to be filled in; null: nobody asks
};

struct HttpResponse {
  int status = 0;
  std::string body;  ///< empty when a sink took it
};

/// A request that got no response.
struct TransportError {
  enum class Kind {
    cancelled,
    timedOut,
    streamReset,  ///< HTTP/2: this request's stream was ended, by itself or with its connection
    closed,       ///< the connection was closed in order, before the answer or within it
    dropped,  ///< by HttpSession::dropConnections(): nothing is wrong, the request may be sent anew
    other,
  };
  Kind kind = Kind::other;
  std::string description;  ///< one sentence for a person

  static TransportError cancelled();
  static TransportError timedOut();
  static TransportError dropped();
};

/// A response, or why there is none.
using HttpResult = tl::expected<HttpResponse, TransportError>;

/// What the blocked caller of a request does from time to time while the request is looked after:
/// not when the session's thread hangs.
struct HttpHeartbeat {
  std::chrono::steady_clock::duration every{};
  std::function<void()> act;  ///< null: nothing; an exception ends the request and is passed on
};

class HttpSessionLoop;
struct HttpTransfer;

/// One request of a session. Any thread may call any operation.
class HttpTask {
 public:
  HttpTask(std::shared_ptr<HttpSessionLoop> loop, std::unique_ptr<HttpTransfer> transfer,
           std::int64_t identifier);
  ~HttpTask();
  std::int64_t identifier() const { return identifier_; }
  /// Sends the request. Called once.
  void start() EXCLUDES(lock_);
  /// Ends the request in whatever phase it is; its completion gets TransportError::cancelled
  /// within milliseconds. A task cancelled before its start ends as soon as it starts; one that
  /// has ended is left as it is.
  void cancel() EXCLUDES(lock_);
  /// Lets a transfer go on whose sink had no room. Harmless for one that is not paused.
  void resume();

 private:
  const std::shared_ptr<HttpSessionLoop> loop_;
  const std::int64_t identifier_;
  Mutex lock_;
  std::unique_ptr<HttpTransfer> transfer_ GUARDED_BY(lock_);  ///< until the start
  bool cancelled_ GUARDED_BY(lock_) = false;
};

/// An HTTP client whose requests, from any thread, share one I/O thread and their connections. It
/// keeps no cookies and no cache.
///
/// Paths die silently, so a time-out says something of the connection: after one, new requests go
/// over new connections. Those that share the connection get 5 s more for an answer to a ping; when
/// none comes, they end with an error too.
class HttpSession {
 public:
  struct Options {
    /// PEM text of the only certificates to trust; empty: the system's roots.
    std::string caCertificates;
    /// URL of the proxy, which loopback never goes through; empty: what the environment says.
    std::string proxy = {};  // NOLINT(readability-redundant-member-init): may be left out
    /// Upper limit for a request that has no deadline of its own.
    std::chrono::steady_clock::duration resourceLimit = std::chrono::seconds(3600);
    /// For the answer to a ping over a connection on which a request timed out.
    std::chrono::steady_clock::duration pingTimeout = std::chrono::seconds(5);
    /// Between two times that connections are dropped.
    std::chrono::steady_clock::duration dropInterval = std::chrono::seconds(5);
  };
  /// Called once, on the I/O thread: must not block and must not throw.
  using Completion = std::function<void(HttpResult)>;

  /// Starts the I/O thread. Throws std::runtime_error when the system has no room for one.
  HttpSession();
  explicit HttpSession(Options options);
  /// Cancels what is in flight, waits for the completions, ends the thread. Not from a completion.
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  /// A task for the request, not yet started.
  std::shared_ptr<HttpTask> task(HttpRequest request, Completion completion);
  /// Sends the request and blocks until it has ended. `onTask` is given the task before it starts.
  [[nodiscard]] HttpResult perform(
      HttpRequest request, const std::function<void(const std::shared_ptr<HttpTask>&)>& onTask = {},
      const HttpHeartbeat& heartbeat = {});
  /// For when the network has changed: closes every connection, and ends what is in flight with
  /// TransportError::dropped. Returns at once. A call less than dropInterval after the last one
  /// took effect takes effect when that time is over; several such calls are one. Any thread.
  void dropConnections();

 private:
  std::shared_ptr<HttpSessionLoop> loop_;
};

}  // namespace verdo
