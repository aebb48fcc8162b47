#pragma once

#include <qwindowdefs.h>

/// How an app that lives in the tray behaves among the others, where Qt does not see to it. Main
/// thread, once the application object is there.
namespace verdo::AgentWindow {

/// The app shows in no dock and has no menu bar of its own.
void becomeAgent();

/// The window, which is there natively, floats above others on every desktop, and stays when
/// another app comes to the front. The app comes to the front.
void present(WId window);

}  // namespace verdo::AgentWindow
