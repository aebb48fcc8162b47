#pragma once

#include <functional>

class QObject;

namespace verdo {

/// Calls `ready` once, now or later, as soon as a tray icon may be made; never while there can be
/// none, nor once `context` is gone. Before that nothing may touch QSystemTrayIcon: Qt looks for
/// the tray with the first use, and for some trays never again. Main thread, once the application
/// object is there.
void whenTrayIsKnown(QObject* context, std::function<void()> ready);

}  // namespace verdo
