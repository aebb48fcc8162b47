#include "VerdoDriver/Platform/macOS/WorkspaceWakeMonitor.h"

#import <AppKit/AppKit.h>

/// Takes the notification, on the main thread, and hands it on.
@interface VerdoWakeObserver : NSObject {
 @public
  verdo::WorkspaceWakeMonitor* monitor;
}
- (void)didWake:(NSNotification*)notification;
@end

@implementation VerdoWakeObserver
- (void)didWake:(NSNotification*)__unused notification {
  Q_EMIT monitor->woke();
}
@end

namespace verdo {

WorkspaceWakeMonitor::WorkspaceWakeMonitor() : observer_([[VerdoWakeObserver alloc] init]) {
  VerdoWakeObserver* const observer = static_cast<VerdoWakeObserver*>(observer_);
  observer->monitor = this;
  [[[NSWorkspace sharedWorkspace] notificationCenter] addObserver:observer
                                                         selector:@selector(didWake:)
                                                             name:NSWorkspaceDidWakeNotification
                                                           object:nil];
}

WorkspaceWakeMonitor::~WorkspaceWakeMonitor() {
  VerdoWakeObserver* const observer = static_cast<VerdoWakeObserver*>(observer_);
  [[[NSWorkspace sharedWorkspace] notificationCenter] removeObserver:observer];
  [observer release];
}

}  // namespace verdo
