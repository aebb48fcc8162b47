#pragma once

#include "VerdoDriver/Model/SystemEvents.h"

#include <atomic>
#include <memory>
#include <thread>

// NOLINTNEXTLINE(bugprone-reserved-identifier): GLib's own name
typedef struct _GMainContext GMainContext;

namespace verdo {

/// Watches the kernel's routes through GLib: the network counts as reachable while there is a
/// default route. Needs no network manager.
///
/// The watching happens on a thread with a GLib context of its own, so that it works whether or
/// not Qt's event loop runs on GLib's (it does not with QT_NO_GLIB), and whoever else in the
/// process uses GLib's shared monitor. Reports come on the main thread. Where routes cannot be
/// watched, the network is reported as reachable, once.
class GioPathMonitor : public PathMonitor {
  Q_OBJECT
 public:
  GioPathMonitor();
  /// Ends the thread; nothing is reported after that.
  ~GioPathMonitor() override;

  /// Calling it again changes nothing.
  void start() override;

 private:
  const std::unique_ptr<GMainContext, void (*)(GMainContext*)> context_;
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;
};

}  // namespace verdo
