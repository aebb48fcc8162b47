#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace verdo {

/// Calls off what was scheduled. Main thread only.
class ClockToken {
 public:
  ClockToken() = default;
  explicit ClockToken(std::function<void()> onCancel) : onCancel_(std::move(onCancel)) {}
  ClockToken(const ClockToken&) = delete;
  ClockToken& operator=(const ClockToken&) = delete;

  bool isCancelled() const { return isCancelled_; }
  /// The block will not run. Harmless when it has run, or when cancelled before. Letting go of the
  /// token cancels nothing.
  void cancel();

 private:
  bool isCancelled_ = false;
  std::function<void()> onCancel_;
};

/// The model's only source of time, so that tests can drive whatever waits. Main thread only.
class Clock {
 public:
  using TimePoint = std::chrono::system_clock::time_point;
  using Duration = std::chrono::nanoseconds;

  virtual ~Clock() = default;
  /// For telling how long something took or has still to wait. Two of these differ by the time that
  /// passed between them, time asleep included, whatever the date was set to meanwhile.
  virtual TimePoint now() const = 0;
  /// Runs `block` once on the main thread when `delay` has passed, as soon as possible when it is
  /// negative, unless the token is cancelled first. Never within this call. The block must hold its
  /// objects weakly.
  virtual std::shared_ptr<ClockToken> after(Duration delay, std::function<void()> block) = 0;
};

}  // namespace verdo
