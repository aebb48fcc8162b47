#pragma once

#include "VerdoDriver/Model/Clock.h"
#include "VerdoDriver/Model/DriverLog.h"
#include "VerdoDriver/Model/PairingService.h"

#include <QObject>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// Connects the app to a user's account without a typed token: asks the server for a code, opens
/// its approve page in the browser, and polls until the user has answered there. Main thread only.
/// It waits by the clock alone; what belongs to a pairing that was abandoned changes nothing.
class PairFlow : public QObject {
  Q_OBJECT
  Q_PROPERTY(verdo::PairingState state READ state NOTIFY stateChanged)
 public:
  /// Takes the token, a secret, and the name of the user who approved.
  using OnApproved = std::function<void(const std::string& token, const std::string& username)>;
  /// Opens an address in the browser.
  using OpenURL = std::function<void(const std::string& url)>;
  /// Gives the name of this computer, for the user to recognise it by.
  using HostName = std::function<std::string()>;

  /// `minInterval`: shortest pause between polls.
  PairFlow(std::shared_ptr<PairingService> service, OpenURL openURL, HostName hostName,
           std::shared_ptr<DriverLog> log, std::shared_ptr<Clock> clock,
           Clock::Duration minInterval = std::chrono::seconds(1));

  /// Abandons the pairing in hand and begins another with the server that the user typed.
  /// `onApproved` is called once the state is `connecting`; it is let go of when the pairing ends
  /// in any other way.
  void start(const std::string& serverURL, bool allowInsecure, OnApproved onApproved);
  /// Abandons the pairing in hand. The message of one that failed stays.
  void cancel();
  /// Leaves `failed`, whose message is not true any more; nothing in any other state.
  void dismissFailure();
  /// Leaves `connecting` once the token was checked: for `failed` with the message, or for `idle`.
  /// Nothing in any other state, as when the pairing was cancelled meanwhile.
  void endConnecting(const std::optional<std::string>& failure);

  /// Goes back to `connecting` from `failed`, or from `idle` after another connect had its turn:
  /// the token that this user approved is checked again.
  void connectAgain(const std::string& username);

  const PairingState& state() const { return state_; }

 Q_SIGNALS:
  /// Told of each outcome, also of one that repeats the state before: each pairing has an end.
  void stateChanged(const verdo::PairingState& state);

 private:
  using Generation = std::uint64_t;
  struct Polling {
    Generation generation;
    Clock::TimePoint expiresAt;
    Clock::Duration interval;
  };

  void started(Generation generation, const tl::expected<PairingStart, PairingError>& reply);
  void schedulePoll(Clock::Duration delay, const Polling& polling);
  void poll(const Polling& polling);
  void polled(const Polling& polling, const tl::expected<PairingPoll, PairingError>& reply);
  void approved(Generation generation, const PairingPoll& poll);
  void fail(std::string message);
  void setState(PairingState state);

  const std::shared_ptr<PairingService> service_;
  const OpenURL openURL_;
  const HostName hostName_;
  const std::shared_ptr<DriverLog> log_;
  const std::shared_ptr<Clock> clock_;
  const Clock::Duration minInterval_;

  PairingState state_;
  OnApproved onApproved_;
  std::string server_;
  bool allowInsecure_ = false;
  std::optional<std::string> code_;  ///< of the request that is polled for; secret
  Generation generation_ = 0;        ///< tells replies and timers of an abandoned pairing apart
};

}  // namespace verdo
