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

  ServerError(Kind kind, const std::string& message) : Error(message), kind_(kind) {}
  Kind kind() const { return kind_; }
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
};

}  // namespace verdo
