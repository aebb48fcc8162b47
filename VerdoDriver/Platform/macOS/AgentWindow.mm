#include "VerdoDriver/Platform/AgentWindow.h"

#import <AppKit/AppKit.h>

namespace verdo::AgentWindow {

// The bundle says so already; a program that runs outside of one would get a place in the dock.
void becomeAgent() {
  [[NSApplication sharedApplication] setActivationPolicy:NSApplicationActivationPolicyAccessory];
}

void present(WId window) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): Qt hands the view out as a number
  NSWindow* const popover = [reinterpret_cast<NSView*>(window) window];
  [popover setBackgroundColor:[NSColor clearColor]];
  [popover setOpaque:NO];
  [popover setHasShadow:YES];
  [popover setLevel:NSFloatingWindowLevel];
  [popover setHidesOnDeactivate:NO];
  [popover setCollectionBehavior:NSWindowCollectionBehaviorCanJoinAllSpaces |
                                 NSWindowCollectionBehaviorTransient];
  [[NSApplication sharedApplication] activateIgnoringOtherApps:YES];
}

}  // namespace verdo::AgentWindow
