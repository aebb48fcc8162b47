#pragma once

#include "VerdoDriver/Model/Connection.h"

#include <QIcon>
#include <QPixmap>

namespace verdo {

/// Draws the tray icon: one shape for each connection, told apart without colour, in tones that are
/// seen on light and on dark panels.
namespace StatusItemIconRenderer {

/// The shape at every size that trays ask for, with a dot in the lower right corner when an update
/// is available.
QIcon icon(Connection connection, bool updateAvailable);

/// One shape, `size` logical pixels high and wide, for a screen of this scale.
QPixmap pixmap(Connection connection, bool updateAvailable, int size, double scale);

}  // namespace StatusItemIconRenderer
}  // namespace verdo
