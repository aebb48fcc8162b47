#pragma once

#include "VerdoDriver/Model/Clock.h"

#include <string>
#include <utility>
#include <variant>

/// The plain values of pairing. Texts are UTF-8.
namespace verdo {

/// A pairing request that the server has opened.
struct PairingStart {
  std::string code;                  ///< secret: names the request when polling
  std::string userCode;              ///< what the user compares in the browser
  std::string verifyPath;            ///< of the approve page, to append to the server's URL
  std::chrono::seconds expiresIn{};  ///< at most a week either way
  std::chrono::seconds interval{};   ///< between polls, at most a week either way
};

/// How a pairing request stands.
struct PairingPoll {
  enum class Status { approved, pending, denied, expired };

  Status status = Status::pending;
  std::string token;     ///< secret; not empty when approved, else empty
  std::string username;  ///< when approved: "?" if the server named none
  bool operator==(const PairingPoll&) const = default;
};

/// Why a pairing call failed.
class PairingError {
 public:
  enum class Kind { refused, http, transport, badReply, badURL };

  /// The server must not be used, in words for the user.
  static PairingError refused(std::string message) { return {Kind::refused, std::move(message)}; }
  /// A status outside of 200–299; `detail` is the server's reason, or empty.
  static PairingError http(int status, std::string detail) {
    return {Kind::http, std::move(detail), status};
  }
  static PairingError transport(std::string message) {
    return {Kind::transport, std::move(message)};
  }
  static PairingError badReply(std::string detail) { return {Kind::badReply, std::move(detail)}; }
  static PairingError badURL() { return {Kind::badURL, {}}; }

  Kind kind() const { return kind_; }
  int status() const { return status_; }  ///< 0 unless the kind is http
  /// One sentence for the user.
  std::string errorDescription() const;

  bool operator==(const PairingError&) const = default;

 private:
  PairingError(Kind kind, std::string text, int status = 0)
      : kind_(kind), text_(std::move(text)), status_(status) {}

  Kind kind_;
  std::string text_;
  int status_;
};

/// No pairing is in hand.
struct PairingIdle {
  bool operator==(const PairingIdle&) const = default;
};
/// The approve page was opened; the user's answer is awaited.
struct PairingWaiting {
  std::string userCode;
  std::string verifyURL;
  Clock::TimePoint expiresAt;
  bool operator==(const PairingWaiting&) const = default;
};
/// Approved; the token is being checked and stored.
struct PairingConnecting {
  std::string username;
  bool operator==(const PairingConnecting&) const = default;
};
struct PairingFailed {
  std::string message;  ///< for the user
  bool operator==(const PairingFailed&) const = default;
};

using PairingState = std::variant<PairingIdle, PairingWaiting, PairingConnecting, PairingFailed>;

}  // namespace verdo
