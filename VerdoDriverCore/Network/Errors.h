#pragma once

#include "VerdoDriverCore/Values/PyError.h"

#include <string>

namespace verdo {

/// A failed call to the service.
class ServerError : public Error {
 public:
  enum class Kind {
    auth,       ///< HTTP 401: the token is unknown or revoked
    outOfDate,  ///< HTTP 426: the service no longer speaks this driver's protocol
    server,     ///< everything else; the only kind that is worth a retry
  };
  /// What a `server` failure tells beyond that, for callers that can do better than try again.
  enum class Cause {
    other,
    bodyTooLarge,  ///< HTTP 413: something on the way takes smaller bodies only
    streamReset,   ///< HTTP/2: the stream was ended early, perhaps for the same reason
    closed,        ///< the connection was closed before the answer's end, perhaps for waiting
    waitTooLong,   ///< HTTP 504 or 408: something on the way does not wait as long as we asked
  };

  ServerError(Kind kind, const std::string& message, Cause cause = Cause::other)
      : Error(message), kind_(kind), cause_(cause) {}
  Kind kind() const { return kind_; }
  Cause cause() const { return cause_; }
  std::string pyName() const override {
    switch (kind_) {
      case Kind::auth:
        return "AuthError";
      case Kind::outOfDate:
        return "OutOfDateError";
      case Kind::server:
        break;
    }
    return "ServerError";
  }

 private:
  Kind kind_;
  Cause cause_;
};

}  // namespace verdo
