#include "VerdoDriver/Platform/Linux/GioPathMonitor.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"
#include "VerdoDriverCore/System/ThreadName.h"

#include <QPointer>
#include <functional>

namespace verdo {
namespace {

using Report = std::function<void(bool)>;

/// A monitor of our own, which reports in the calling thread's context. The shared one would
/// report wherever it was first asked for. None, with the error filled in, when it cannot be had.
GObjectPtr<GNetworkMonitor> makeMonitor(GLibPtr<GError>& error) {
  // Any look-up makes GLib register its extensions. The plain way, asking for the shared monitor,
  // could connect this process to the system bus, whose end would then end the process.
  const GObjectPtr<GProxy> unused(g_proxy_get_default_for_protocol("none"));
  GIOExtensionPoint* point = g_io_extension_point_lookup(G_NETWORK_MONITOR_EXTENSION_POINT_NAME);
  GIOExtension* netlink =
      point ? g_io_extension_point_get_extension_by_name(point, "netlink") : nullptr;
  if (!netlink) {
    error.reset(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "GLib has no netlink"));
    return nullptr;
  }
  return GObjectPtr<GNetworkMonitor>(static_cast<GNetworkMonitor*>(
      g_initable_new(g_io_extension_get_type(netlink), nullptr, OutError(error), nullptr)));
}

void onNetworkChanged(GNetworkMonitor*, gboolean available, gpointer report) {
  (*static_cast<const Report*>(report))(available);
}

void watch(GMainContext* context, const std::atomic<bool>& isStopping, const Report& report) {
  g_main_context_push_thread_default(context);
  GLibPtr<GError> error;
  if (const auto monitor = makeMonitor(error)) {
    g_signal_connect(monitor.get(), "network-changed", G_CALLBACK(onNetworkChanged),
                     const_cast<Report*>(&report));
    report(g_network_monitor_get_network_available(monitor.get()));
    while (!isStopping) g_main_context_iteration(context, TRUE);
  } else {
    AppLog::lifecycle.error(std::string("[PathMonitor] routes cannot be watched: ") +
                            (error ? error->message : "no reason given"));
    report(true);
  }
  g_main_context_pop_thread_default(context);
}

}  // namespace

GioPathMonitor::GioPathMonitor() : context_(g_main_context_new(), g_main_context_unref) {}

GioPathMonitor::~GioPathMonitor() {
  if (!thread_.joinable()) return;
  isStopping_ = true;
  g_main_context_wakeup(context_.get());
  thread_.join();
}

void GioPathMonitor::start() {
  if (thread_.joinable()) return;
  const Report report = [self = QPointer(this)](bool satisfied) {
    MainThread::post([self, satisfied] {
      if (self) Q_EMIT self->reported(satisfied);
    });
  };
  thread_ = std::thread([this, report] {
    setThreadName("verdo-routes");
    watch(context_.get(), isStopping_, report);
  });
}

}  // namespace verdo
