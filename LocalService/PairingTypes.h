#pragma once

#include <chrono>
#include <string>

namespace verdo::local {

// NOLINTBEGIN(readability-redundant-member-init): lets callers name only the fields they set.

/// How pairings are offered. A plain value.
struct PairingRules {
  std::chrono::seconds expiresIn{600};  ///< until a request that nobody decided expires; 0..a day
  std::chrono::seconds interval{2};     ///< that apps are told to leave between polls; 0..a day
  std::string username = "local";       ///< account that is connected
};

enum class PairingState {
  pending,   ///< waits for a person's decision
  approved,  ///< the token may be fetched, or has been
  denied,
  expired,  ///< nobody decided in time
};

/// A pairing as it stood when it was asked for. A plain value.
struct PairingSnapshot {
  std::string code{};        ///< the secret that the app polls with
  std::string userCode{};    ///< ABCD-EFGH, for people
  std::string verifyPath{};  ///< of the approve page, beginning with "/"
  std::string host{};        ///< name of the computer that asks, as it was given (UTF-8)
  PairingState state = PairingState::pending;
};

// NOLINTEND(readability-redundant-member-init)

}  // namespace verdo::local
