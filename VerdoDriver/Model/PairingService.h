#pragma once

#include "VerdoDriver/Model/PairingTypes.h"

#include <functional>
#include <string>

#include <tl/expected.hpp>

namespace verdo {

/// The server's side of pairing. Main thread only. A completion is called on the main thread, never
/// inside the call that took it, exactly once; not at all when the service is gone by then.
class PairingService {
 public:
  using StartCompletion = std::function<void(const tl::expected<PairingStart, PairingError>&)>;
  using PollCompletion = std::function<void(const tl::expected<PairingPoll, PairingError>&)>;

  virtual ~PairingService() = default;

  /// Asks `server`, a cleaned server URL, for a pairing code for the computer named `host`.
  virtual void start(const std::string& server, bool allowInsecure, const std::string& host,
                     StartCompletion completion) = 0;
  /// Asks how the request with this secret code stands.
  virtual void poll(const std::string& server, bool allowInsecure, const std::string& code,
                    PollCompletion completion) = 0;
};

}  // namespace verdo
