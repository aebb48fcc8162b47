#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include "VerdoDriverCore/Process/ThreadName.h"

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
  g_main_context_pop_thread_default(context_.get());
}

GObjectPtr<GDBusConnection> sessionBus(GCancellable* cancellable, GLibPtr<GError>& error) {
  GObjectPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SESSION, cancellable, OutError(error)));
  if (bus) g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
  return bus;
}

}  // namespace verdo
