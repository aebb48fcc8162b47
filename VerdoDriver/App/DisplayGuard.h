#pragma once

namespace verdo {

/// Stands while the application object is made. Where no window can be opened (no display, one that
/// refuses or has gone, a platform without its plugin) Qt aborts the program; with this it ends
/// with exit status 1 and one line that says why and what to do. What Qt tells on the way is
/// printed when the guard goes. Main thread only, one at a time.
class DisplayGuard {
 public:
  DisplayGuard();
  ~DisplayGuard();
  DisplayGuard(const DisplayGuard&) = delete;
  DisplayGuard& operator=(const DisplayGuard&) = delete;
};

}  // namespace verdo
