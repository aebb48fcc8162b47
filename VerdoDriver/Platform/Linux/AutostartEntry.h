#pragma once

#include "VerdoDriver/Model/LoginItem.h"

#include <string>

namespace verdo {

/// Starts the app at login with a desktop entry in the user's autostart directory. Main thread
/// only.
class AutostartEntry : public LoginItemManaging {
 public:
  /// `executable` is the absolute path that the entry starts.
  explicit AutostartEntry(std::string executable, std::string path = defaultPath());

  /// "$XDG_CONFIG_HOME/autostart/verdo-driver.desktop".
  static std::string defaultPath();

  /// What the file says now: true when the desktop will start something by it. The user may have
  /// switched it off in the desktop's own settings.
  bool isEnabled() const override;
  void setEnabled(bool enabled) override;
  /// Corrects an enabled entry that starts another path, after the app was moved. What else the
  /// entry says stays. To be called at every start.
  void refresh();

 private:
  const std::string executable_;
  const std::string path_;
};

}  // namespace verdo
