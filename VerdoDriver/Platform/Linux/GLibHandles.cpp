#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include "VerdoDriverCore/System/ThreadName.h"

namespace verdo {

BoundedGLibCalls::BoundedGLibCalls(std::chrono::milliseconds limit)
    : watchdog_([this, limit] {
        setThreadName("verdo-time-limit");
        if (!finished_.waitFor(limit)) g_cancellable_cancel(cancellable_.get());
      }) {
  g_main_context_push_thread_default(context_.get());
}

BoundedGLibCalls::~BoundedGLibCalls() {
  finished_.set();
  watchdog_.join();
  // What still waits for delivery would keep its context alive, and the context it.
  while (g_main_context_iteration(context_.get(), FALSE)) {
  }
  g_main_context_pop_thread_default(context_.get());
}

SessionBus::SessionBus(GCancellable* cancellable, GLibPtr<GError>& error) {
  const GLibPtr<gchar> address(
      g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, cancellable, OutError(error)));
  if (!address) return;
  constexpr auto kFlags =
      // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): GLib combines flags
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  connection_.reset(g_dbus_connection_new_for_address_sync(address.get(), kFlags, nullptr,
                                                           cancellable, OutError(error)));
}

SessionBus::~SessionBus() {
  // Needs no answer from the bus, and has to happen after the time is over, too: no cancellable.
  if (connection_) g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
}

}  // namespace verdo
