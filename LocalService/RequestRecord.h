#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace verdo::local {

/// One request as it arrived, and how it was answered. A plain value, copied out of the log.
struct RequestRecord {
  using Clock = std::chrono::steady_clock;

  std::uint64_t sequence = 0;  ///< 1, 2, … over all endpoints, in order of arrival
  std::string endpoint;        ///< as in Fault::endpoint, or "unknown"
  std::string method;
  std::string target;                                        ///< path and query exactly as received
  std::vector<std::pair<std::string, std::string>> headers;  ///< as received, in order
  std::string body;                                          ///< at most the first MiB
  std::size_t bodySize = 0;                                  ///< full length
  std::optional<std::int64_t> jobId;                         ///< for lines and complete
  std::uint64_t connection = 0;  ///< 1, 2, … in order of accept; same value: same connection
  std::uint16_t peerPort = 0;    ///< the client's port
  Clock::time_point arrived;     ///< the request was read whole
  /// The reply was handed to the socket, or the connection was ended by a fault; absent while the
  /// request waits, or when the client went away first.
  std::optional<Clock::time_point> replied;
  int status = 0;  ///< of the reply; 0 when there was none (waiting, reset, close, garbage)
  std::optional<Clock::time_point> hungUp;  ///< the client went away before it was answered
  std::optional<std::uint64_t> fault;       ///< identifier of the fault that was applied

  /// Value of the first header of that name (in any case), or absent.
  std::optional<std::string> header(std::string_view name) const;
};

}  // namespace verdo::local
