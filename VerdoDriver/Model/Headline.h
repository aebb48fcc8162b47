#pragma once

#include "VerdoDriver/Model/AppModel.h"

#include <optional>
#include <string>

namespace verdo {

/// What the head of the popover says of the driver, and the one thing that helps. A plain value.
struct Headline {
  /// What the button does.
  enum class Action {
    none,
    setUp,           ///< opens the setup
    start,           ///< starts the driver
    unlock,          ///< has the system ask for the keyring's password
    installEgo,      ///< leads to the browser tool
    downloadUpdate,  ///< leads to the newest release
    fixToken,        ///< connects to the website once more
    fixKey,          ///< opens the setup at the key
    fixServer,       ///< opens the setup at the server
    retryNow,        ///< ends a back-off
  };

  std::string title;
  std::string detail;
  Action action = Action::none;
  std::optional<Clock::TimePoint> retryAt;  ///< `detail` counts down to it

  bool operator==(const Headline&) const = default;
};

Headline headlineOf(const AppModel& model);

/// What else runs browser jobs, for a user who is to install the browser tool; empty where a button
/// leads to it, and on systems that have nothing else.
std::string browserAdvice(const AppModel& model);

/// The button's text; empty without one.
const char* labelOf(Headline::Action action);
/// For programs: "fixToken".
const char* nameOf(Headline::Action action);

/// Whole seconds until then, rounded up; 0 when it has passed.
int secondsUntil(Clock::TimePoint time, const Clock& clock);

}  // namespace verdo
