#pragma once

#include <functional>

namespace verdo {

/// Has the app end in order when the X server or the Wayland compositor goes away under it. Qt says
/// so in a message, and ends the process right after it: on X11 with the static destructors under
/// the driver's threads, in any case without a word to the driver, whose jobs would go on for ever.
/// One for a process, made when its application object is there.
class DisplayLoss {
 public:
  /// `onLoss` is called on the main thread and ends the process within 10 s; no event loop runs any
  /// more.
  explicit DisplayLoss(std::function<void()> onLoss);
  ~DisplayLoss();
  DisplayLoss(const DisplayLoss&) = delete;
  DisplayLoss& operator=(const DisplayLoss&) = delete;
};

}  // namespace verdo
