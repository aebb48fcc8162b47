#pragma once

#include "VerdoDriverCore/Network/HttpSession.h"
#include "VerdoDriverCore/System/ByteBuffer.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstddef>
#include <optional>
#include <string_view>

namespace verdo {

/// Carries the body of a response with a status from 200 to 299 from the session's thread, which
/// must not wait for a disk, to the thread that asked for it. Bodies of other responses are
/// dropped. The queue is bounded: while its reader lags, the transfer is paused, and so is its
/// time-out, for it is not the network that is slow.
class BodyQueue : public HttpBodySink {
 public:
  /// Bytes that wait for the reader, at most.
  static constexpr std::size_t kMaxBytes = 1 << 20;

  // The session's thread calls these.
  bool onBytes(int status, std::string_view bytes) override EXCLUDES(lock_);
  /// The request's completion.
  void end(HttpResult result) EXCLUDES(lock_);

  // One reader calls these.
  /// Blocks until there is something worth a write and puts it in place of the content of `bytes`,
  /// whose memory is used again. False once there is nothing more: the body has been read, or the
  /// request has failed, in which case what still waited is dropped.
  bool next(ByteBuffer& bytes, HttpTask& task) EXCLUDES(lock_);
  /// How the request ended; once, after next() gave false.
  HttpResult takeResult() EXCLUDES(lock_);

 private:
  Mutex lock_;
  Condition readable_;
  ByteBuffer waiting_ GUARDED_BY(lock_);
  bool paused_ GUARDED_BY(lock_) = false;
  std::optional<HttpResult> result_ GUARDED_BY(lock_);
};

}  // namespace verdo
