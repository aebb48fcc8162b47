#pragma once

// The part of the Network framework that the adapters use.

#include <dispatch/dispatch.h>

using nw_path_monitor_t = struct FakePathMonitor*;
using nw_path_t = struct FakePath*;
enum nw_path_status_t {
  nw_path_status_invalid = 0,
  nw_path_status_satisfied = 1,
  nw_path_status_unsatisfied = 2,
  nw_path_status_satisfiable = 3,
};
using nw_path_monitor_update_handler_t = void (^)(nw_path_t path);

extern "C" {
nw_path_monitor_t nw_path_monitor_create();
void nw_path_monitor_set_queue(nw_path_monitor_t monitor, dispatch_queue_t queue);
void nw_path_monitor_set_update_handler(nw_path_monitor_t monitor,
                                        nw_path_monitor_update_handler_t handler);
void nw_path_monitor_start(nw_path_monitor_t monitor);
void nw_path_monitor_cancel(nw_path_monitor_t monitor);
nw_path_status_t nw_path_get_status(nw_path_t path);
void nw_release(void* object);
}
