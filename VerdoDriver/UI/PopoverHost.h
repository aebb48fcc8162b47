#pragma once

#include "VerdoDriver/Model/Connection.h"

#include <QPixmap>
#include <functional>
#include <string>

namespace verdo {

/// What the popover needs of the program around it. All of it is there.
struct PopoverHost {
  std::function<void()> quit;     ///< ends the app; the user has agreed
  std::function<void()> restart;  ///< ends it, too, and starts the program that lies there now
  /// Draws the connection's shape, `size` logical pixels high and wide, for a screen of this scale.
  std::function<QPixmap(Connection connection, int size, double scale)> shape;
  std::string defaultServerURL;  ///< offered until the user has chosen one; may be empty
};

}  // namespace verdo
