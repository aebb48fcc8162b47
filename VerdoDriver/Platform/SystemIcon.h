#pragma once

#include "VerdoDriver/Model/Connection.h"

#include <QIcon>

namespace verdo {

/// The tray icon drawn with the system's own symbols, tinted by it; with a dot when an update is
/// available. Null where the system has no symbols, or not this one. Main thread.
QIcon systemIcon(Connection connection, bool updateAvailable);

}  // namespace verdo
