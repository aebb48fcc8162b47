#pragma once

#include "VerdoDriver/Platform/Linux/GLibHandles.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <tl/expected.hpp>

namespace verdo {

/// One method call. The service is never started for it.
struct BusCall {
  std::string service;
  std::string path;
  std::string interface;
  std::string method;
  GVariant* arguments = nullptr;  ///< a tuple that is not owned by anybody yet, or none
  const char* replyType = "()";   ///< of the answer; another type counts as a failure
};

struct BusReply {
  GLibPtr<GVariant> values;  ///< of the type that was asked for
  UniqueFd descriptor;       ///< the first that came with it
};
/// An answer, or why there is none: "{D-Bus error name}: {message}".
using BusResult = tl::expected<BusReply, std::string>;

/// A client of one message bus that waits for it on a thread of its own: a bus that is slow, absent
/// or does not answer costs its callers nothing but the answer. (Qt connects to a bus while the
/// caller waits, without a limit, and on the one thread that serves the tray icon's bus, too.)
///
/// Operations are called on the main thread, and answers come there, later; none comes once the
/// link is gone. It connects with the first operation, and anew after the bus was lost.
class BusLink {
 public:
  struct Options {
    std::chrono::milliseconds connectTimeout{10'000};
    std::chrono::milliseconds callTimeout{25'000};
    /// Between attempts to connect for the sake of subscriptions.
    std::chrono::milliseconds reconnectDelay{60'000};
  };
  using Done = std::function<void(BusResult)>;
  using Heard = std::function<void(GVariant* values)>;

  /// `address` as D-Bus writes it; with an empty one every call fails.
  explicit BusLink(std::string address, const Options& options);
  explicit BusLink(std::string address) : BusLink(std::move(address), Options()) {}
  ~BusLink();
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  /// Where the system's bus and the user's are, by the environment or in the usual places. Empty
  /// when there is none: no bus is started. Touches no bus.
  static std::string systemAddress();
  static std::string sessionAddress();

  void call(const BusCall& call, Done done);
  /// Hears a signal from now on, also of a service, or over a connection, that is made later.
  void subscribe(const std::string& service, const std::string& path, const std::string& interface,
                 const std::string& signal, Heard heard);

 private:
  class Loop;
  const std::shared_ptr<Loop> loop_;
};

}  // namespace verdo
