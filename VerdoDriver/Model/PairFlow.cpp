#include "VerdoDriver/Model/PairFlow.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriver/Model/ServerURL.h"
#include "VerdoDriver/Model/WebLink.h"

#include <QPointer>
#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr std::chrono::seconds kMinLifetime{30};  // so that the user can get to the browser at all
constexpr std::chrono::milliseconds kPastEnd{100};
constexpr int kBackOff = 2;  // of the interval, for one step after a failed poll
constexpr const char* kExpired =
    "The request expired before it was approved — press Connect to website again.";

/// True when the server has refused this very request: asking again cannot help, except later.
bool isFinal(const PairingError& error) {
  return error.kind() == PairingError::Kind::http && error.status() >= 400 &&
         error.status() <= 499 && error.status() != 429;
}

}  // namespace

PairFlow::PairFlow(std::shared_ptr<PairingService> service, OpenURL openURL, HostName hostName,
                   std::shared_ptr<DriverLog> log, std::shared_ptr<Clock> clock,
                   Clock::Duration minInterval)
    : service_(std::move(service)),
      openURL_(std::move(openURL)),
      hostName_(std::move(hostName)),
      log_(std::move(log)),
      clock_(std::move(clock)),
      minInterval_(minInterval) {}

void PairFlow::start(const std::string& serverURL, bool allowInsecure, OnApproved onApproved) {
  MainThread::require("PairFlow::start");
  cancel();
  const auto server = validateServerURL(serverURL, allowInsecure);
  if (!server) {
    AppLog::connect.info("[PairFlow] refused: " + server.error().message);
    setState(PairingFailed{server.error().message});
    return;
  }
  server_ = *server;
  allowInsecure_ = allowInsecure;
  onApproved_ = std::move(onApproved);
  const Generation generation = ++generation_;
  log_->write(fmt::format("» pairing with {} — asking for a code", server_));
  service_->start(server_, allowInsecure_, hostName_(),
                  [self = QPointer<PairFlow>(this), generation](const auto& reply) {
                    if (self) self->started(generation, reply);
                  });
}

void PairFlow::started(Generation generation,
                       const tl::expected<PairingStart, PairingError>& reply) {
  if (generation != generation_) return;
  if (!reply) {
    const auto error = reply.error().errorDescription();
    log_->write("✗ pairing request failed: " + error);
    return fail(fmt::format("Could not reach {}: {}", server_, error));
  }
  const auto verifyURL = WebLink::onServer(server_, reply->verifyPath);
  if (!verifyURL) return fail("The server sent an invalid approve link.");
  code_ = reply->code;
  const auto expiresAt = clock_->now() + std::max(reply->expiresIn, kMinLifetime);
  const auto interval = std::max(Clock::Duration(reply->interval), minInterval_);

  const QPointer<PairFlow> self(this);
  setState(PairingWaiting{reply->userCode, *verifyURL, expiresAt});
  if (!self || generation != generation_) return;
  log_->write(fmt::format("» pairing code {} — approve it in the browser ({})", reply->userCode,
                          *verifyURL));
  openURL_(*verifyURL);
  if (self) schedulePoll(interval, {generation, expiresAt, interval});
}

void PairFlow::schedulePoll(Clock::Duration delay, const Polling& polling) {
  // Not later than the end, of which the next poll tells, however seldom the server is to be asked.
  const auto untilEnd = polling.expiresAt - clock_->now() + kPastEnd;
  clock_->after(std::min<Clock::Duration>(delay, std::max<Clock::Duration>(untilEnd, minInterval_)),
                [self = QPointer<PairFlow>(this), polling] {
                  if (self) self->poll(polling);
                });
}

void PairFlow::poll(const Polling& polling) {
  if (polling.generation != generation_) return;
  if (clock_->now() > polling.expiresAt) return fail(kExpired);
  service_->poll(server_, allowInsecure_, code_.value_or(""),
                 [self = QPointer<PairFlow>(this), polling](const auto& reply) {
                   if (self) self->polled(polling, reply);
                 });
}

void PairFlow::polled(const Polling& polling,
                      const tl::expected<PairingPoll, PairingError>& reply) {
  if (polling.generation != generation_) return;
  if (!reply) {
    const auto error = reply.error().errorDescription();
    if (isFinal(reply.error())) return fail("The server refused the request: " + error);
    AppLog::connect.info("[PairFlow] poll failed, retrying: " + error);
    schedulePoll(kBackOff * polling.interval, polling);
    return;
  }
  switch (reply->status) {
    case PairingPoll::Status::pending:
      return schedulePoll(polling.interval, polling);
    case PairingPoll::Status::denied:
      return fail("Denied in the browser — nothing was connected.");
    case PairingPoll::Status::expired:
      return fail(kExpired);
    case PairingPoll::Status::approved:
      return approved(polling.generation, *reply);
  }
}

void PairFlow::approved(Generation generation, const PairingPoll& poll) {
  log_->write(fmt::format("» pairing approved as {} — token {} received, checking it",
                          poll.username, masked(poll.token)));
  code_.reset();
  const QPointer<PairFlow> self(this);
  setState(PairingConnecting{poll.username});
  if (!self || generation != generation_ || !onApproved_) return;
  const auto onApproved = std::exchange(onApproved_, nullptr);  // it may start another pairing
  onApproved(poll.token, poll.username);
}

void PairFlow::cancel() {
  ++generation_;
  code_.reset();
  onApproved_ = nullptr;
  if (!std::holds_alternative<PairingWaiting>(state_) &&
      !std::holds_alternative<PairingConnecting>(state_)) {
    return;
  }
  log_->write("» pairing cancelled");
  setState(PairingIdle{});
}

void PairFlow::dismissFailure() {
  if (std::holds_alternative<PairingFailed>(state_)) setState(PairingIdle{});
}

void PairFlow::endConnecting(const std::optional<std::string>& failure) {
  if (!std::holds_alternative<PairingConnecting>(state_)) return;
  if (failure) {
    setState(PairingFailed{*failure});
  } else {
    setState(PairingIdle{});
  }
}

void PairFlow::connectAgain(const std::string& username) {
  if (std::holds_alternative<PairingFailed>(state_) ||
      std::holds_alternative<PairingIdle>(state_)) {
    setState(PairingConnecting{username});
  }
}

/// Ends the pairing in hand. The one who waits for the token goes: it holds the user's LLM key.
void PairFlow::fail(std::string message) {
  code_.reset();
  onApproved_ = nullptr;
  setState(PairingFailed{std::move(message)});
}

void PairFlow::setState(PairingState state) {
  state_ = std::move(state);
  Q_EMIT stateChanged(PairingState(state_));  // a copy: whoever listens may set the next one
}

}  // namespace verdo
