#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace verdo {

/// How long a poll asks the service to wait for a job. Proxies end requests that wait for longer
/// than they are told to: once that is seen, polls ask for less. Used by one thread.
class PollWait {
 public:
  using Duration = std::chrono::steady_clock::duration;

  /// `wait` is the configured wait, seconds.
  explicit PollWait(double wait) : wait_(wait) {}

  /// Seconds to ask for.
  double seconds() const { return wait_; }
  /// A poll was ended after so long, by something on the way it seems (HTTP 504 or 408, or without
  /// a word). Gives the line that explains it, when that is new.
  [[nodiscard]] std::optional<std::string> endedByProxy(Duration after);

 private:
  double wait_;
  std::optional<double> lastEnd_;  ///< seconds after which the previous poll was ended
};

}  // namespace verdo
