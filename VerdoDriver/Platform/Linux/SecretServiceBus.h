#pragma once

#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace verdo {

/// The name under which the program that keeps secrets can be reached.
inline constexpr const char* kSecretServiceName = "org.freedesktop.secrets";

/// A connection to the session bus that nobody else uses: password managers grant access to a
/// connection, and GIO's shared one ends the process when the bus goes. Closed at the end. Every
/// operation throws SecretError as secretErrorOf makes it. Used by one thread at a time.
///
/// No call starts a program, but startService.
class SecretServiceBus {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  struct Request {
    std::string destination;
    const char* path;
    const char* interface;
    const char* method;
  };

  /// Connects before `deadline`; throws SecretServiceMissing when there is no bus,
  /// std::system_error when the system has no room for a thread. `changed` is called, on a thread
  /// of GIO's that must not be held up, whenever another program keeps the secrets or something is
  /// locked or unlocked; never again once this object is gone.
  SecretServiceBus(TimePoint deadline, std::function<void()> changed);
  ~SecretServiceBus();
  SecretServiceBus(const SecretServiceBus&) = delete;
  SecretServiceBus& operator=(const SecretServiceBus&) = delete;

  /// The session bus of this process; none when it has none. Never looks for one by starting it.
  static std::optional<std::string> address();
  /// False once the bus is gone, or another one is the session's.
  bool isCurrent() const;

  /// Calls a method. `arguments` (may be null) are taken over; the reply has `replyType`.
  GLibPtr<GVariant> call(const Request& request, GVariant* arguments, const char* replyType,
                         TimePoint deadline);
  /// The unique name of the program that owns `name`; empty when none does.
  std::string ownerOf(const std::string& name, TimePoint deadline);
  /// The program's name, "keepassxc" say; empty when it cannot be told.
  std::string programOf(const std::string& owner, TimePoint deadline);
  /// Has the bus start the program that its configuration names; false when it names none or that
  /// does not come up.
  bool startService(const std::string& name, TimePoint deadline);

  GDBusConnection* connection() const { return connection_.get(); }

 private:
  void watch(std::function<void()> changed, TimePoint deadline);

  const std::string address_;
  GObjectPtr<GDBusConnection> connection_;
  guint filter_ = 0;
};

}  // namespace verdo
