#pragma once

#include "LocalService/PairingTypes.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace verdo::local {

/// Where the approve pages are; a user code follows.
inline constexpr std::string_view kPairingPages = "/driver/pair/";

const char* toText(PairingState state);

/// The pairings that apps have begun: they poll for the end of theirs without a token, and a person
/// decides on the approve page, or the owner of the service does here. Every member may be called
/// from any thread.
class PairingStore {
 public:
  /// What the approve page needs to know of a pairing.
  struct Request {
    PairingSnapshot pairing;
    std::string username;
    /// Goes into the page's form. It is worth one decision, as there is only one.
    std::string nonce;
  };
  enum class Decision { made, tooLate, wrongNonce, unknown };
  /// An app's share of a pairing.
  struct Poll {
    PairingState state = PairingState::pending;
    std::string username;
  };

  /// For pairings begun from now on. Throws std::invalid_argument that says what is out of range.
  void setRules(PairingRules rules);

  /// Begins a pairing and gives it with the rules that it is under.
  std::pair<PairingSnapshot, PairingRules> begin(std::string host);
  /// The state to tell the app that polls with this secret; absent: there is no such pairing.
  /// `approved` is told once: the code is used up with it, and expired from then on.
  std::optional<Poll> poll(std::string_view code);
  /// The `approved` that the app was told did not reach it: it may be told again.
  void putBack(std::string_view code);

  std::optional<Request> request(std::string_view userCode) const;
  /// A decision made on the page. It is only made while the pairing is pending.
  Decision decide(std::string_view userCode, std::string_view nonce, bool approve);
  // Decisions made here. False: there is no such pairing, or it is not pending.

  bool approve(std::string_view userCode) { return end(userCode, PairingState::approved); }
  bool deny(std::string_view userCode) { return end(userCode, PairingState::denied); }
  bool expire(std::string_view userCode) { return end(userCode, PairingState::expired); }

  std::vector<PairingSnapshot> list() const;  ///< oldest first
  /// The n-th pairing (1, 2, …) since the last clear(); absent when it did not begin in time.
  std::optional<PairingSnapshot> waitFor(std::size_t n, std::chrono::milliseconds timeout) const;

  void clear();      ///< no pairings, and the rules of the beginning
  void interrupt();  ///< waits end now
  void resume();     ///< waits wait again

 private:
  struct Entry {
    PairingSnapshot pairing;  // its state does not know of the deadline
    std::string username;
    std::string nonce;
    std::chrono::steady_clock::time_point expires;
    bool handedOut = false;
  };
  static PairingSnapshot snapshot(const Entry& entry);
  bool end(std::string_view userCode, PairingState state);
  std::string unusedUserCode() const REQUIRES(mutex_);

  mutable Mutex mutex_;
  mutable Condition changed_;
  PairingRules rules_ GUARDED_BY(mutex_);
  std::vector<Entry> entries_ GUARDED_BY(mutex_);
  bool interrupted_ GUARDED_BY(mutex_) = false;
};

}  // namespace verdo::local
