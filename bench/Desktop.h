#pragma once

#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Process/Spawn.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <xcb/xcb.h>

namespace verdo::bench {

/// A desktop of its own (Xvfb, openbox, tint2 with a tray, a session bus, an empty home), and a
/// client of its display that sees what other programs show there. Throws std::runtime_error when
/// something does not come up.
class Desktop {
 public:
  using Clock = std::chrono::steady_clock;

  Desktop();
  ~Desktop();
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;

  const std::string& home() const { return home_; }
  /// For the programs on it.
  const Environment& environment() const { return environment_; }

  enum class Kind { trayIcon, window };
  /// What was painted so far does not count for the next wait. Right before what is measured.
  void forget();
  /// Waits until a program's own window of this kind was mapped, and then painted over most of it;
  /// gives when.
  Clock::time_point waitUntilPainted(Kind kind);
  /// Waits until the window that has the keyboard is gone from the screen.
  void pressEscape();

 private:
  struct Connection {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
  };
  /// Of a program, not of the window manager or the panel.
  struct Window {
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    bool isMapped = false;
  };

  void start(const std::vector<std::string>& command);
  void startDisplay();
  void startPanel();
  void watch();
  void waitForSelection(const char* name);
  bool isOfAProgram(xcb_window_t window);
  void handle(const xcb_generic_event_t& event);
  /// Handles events until `done`, for 10 s at most.
  void handleUntil(const std::function<bool()>& done, const char* what);

  std::string home_;
  Environment environment_;
  std::vector<std::unique_ptr<ChildProcess>> children_;
  std::unique_ptr<xcb_connection_t, Connection> x_;
  xcb_window_t root_ = 0;
  std::uint8_t damageEvent_ = 0;
  std::map<xcb_window_t, Window> windows_;
  std::map<Kind, Clock::time_point> painted_;
  bool isUnmapped_ = false;  ///< a window was, since pressEscape() began
};

}  // namespace verdo::bench
