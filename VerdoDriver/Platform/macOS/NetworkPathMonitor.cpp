#include "VerdoDriver/Platform/macOS/NetworkPathMonitor.h"

#include "VerdoDriver/Model/MainThread.h"

#include <QPointer>

#include <dispatch/dispatch.h>

namespace verdo {

NetworkPathMonitor::~NetworkPathMonitor() {
  if (!monitor_) return;
  nw_path_monitor_cancel(monitor_);
  nw_release(monitor_);
}

void NetworkPathMonitor::start() {
  if (monitor_) return;
  monitor_ = nw_path_monitor_create();
  const dispatch_queue_t queue = dispatch_queue_create("verdo.pathmonitor", DISPATCH_QUEUE_SERIAL);
  nw_path_monitor_set_queue(monitor_, queue);
  dispatch_release(queue);  // the monitor keeps it
  const QPointer<NetworkPathMonitor> self(this);
  nw_path_monitor_set_update_handler(monitor_, ^(nw_path_t path) {
    const bool satisfied = nw_path_get_status(path) == nw_path_status_satisfied;
    // Only the main thread may look whether it is still there.
    MainThread::post([self, satisfied] {
      if (self) Q_EMIT self->reported(satisfied);
    });
  });
  nw_path_monitor_start(monitor_);
}

}  // namespace verdo
