#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace verdo::local {

// NOLINTBEGIN(readability-redundant-member-init): lets callers name only the fields they set.

/// A reply that is shown in place of the ordinary one.
struct FaultReply {
  int status = 200;
  std::string body{};  ///< sent byte for byte, JSON or not
  /// Sent in this order. Content-Type defaults to application/json; Content-Length is always the
  /// length of `body`.
  std::vector<std::pair<std::string, std::string>> headers{};
};

/// How the answer leaves the service.
enum class Delivery {
  whole,      ///< as any reply
  truncated,  ///< Content-Length promises the whole body, `truncateAfter` bytes of it come
  trickled,   ///< head and body at `bytesPerSecond`
  reset,      ///< no reply: the connection ends with a TCP RST
  close,      ///< no reply: the connection ends with an orderly FIN
  garbage,    ///< bytes that are not HTTP, then the connection ends
};

/// One misbehaviour of the service, applied to the requests that it matches. A plain value.
///
/// Of several faults that match a request, the one added first is applied. A request that is
/// answered with an ordinary reply (late, slow or cut short) takes effect; one that gets a `reply`
/// of the fault, a reset, a close or garbage has no effect unless `processed` is set.
struct Fault {
  // Which requests. A request must match all of it.

  /// hello, poll, lines, complete, files, chat, models, pair-start, pair-poll, approve (the page,
  /// shown or sent back), manifest, or any of them ("any").
  std::string endpoint = "any";
  std::optional<std::int64_t> jobId{};   ///< only requests that name this job (lines, complete)
  std::uint64_t after = 0;               ///< the first `after` matching requests are left alone
  std::optional<std::uint64_t> count{};  ///< then this many are hit; absent: until cleared
  /// Chance 0..1 that a request is hit, from a generator seeded by LocalServiceOptions::seed.
  /// Requests that it spares use up neither `after` nor `count`.
  double probability = 1.0;
  std::optional<std::size_t> bodyOver{};  ///< only requests whose body has more bytes than this

  // What happens to them.

  /// Waited before the request is processed and answered; at most a day.
  std::chrono::milliseconds delay{0};
  std::optional<FaultReply> reply{};  ///< absent: the ordinary reply
  Delivery delivery = Delivery::whole;
  std::size_t truncateAfter = 1;     ///< for Delivery::truncated, at most the body's length
  std::size_t bytesPerSecond = 100;  ///< for Delivery::trickled, at least 1
  std::string garbage = "\x16\x03 this is not HTTP\r\n\r\n";  ///< for Delivery::garbage
  /// The request takes effect first, and then the fault is shown, as when a reply is lost on its
  /// way. With a `delay` alone: the delay comes after the effect instead of before it.
  bool processed = false;
};

// NOLINTEND(readability-redundant-member-init)

/// What a proxy does that takes bodies of at most `bytes`: longer ones on the endpoint are answered
/// 413, until the fault is cleared.
Fault bodyLimit(std::string endpoint, std::size_t bytes);

/// A fault in force.
struct FaultStatus {
  std::uint64_t id = 0;
  Fault fault{};
  std::uint64_t hits = 0;  ///< requests hit so far
};

/// How the whole service fails for a while.
enum class OutageKind {
  refuse,  ///< connects are refused and open connections dropped; then the same port again
  hang,    ///< connects succeed, requests are read, and answered when the outage is over
};

}  // namespace verdo::local
