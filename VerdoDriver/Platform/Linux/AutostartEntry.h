#pragma once

#include "VerdoDriver/Model/LoginItem.h"

#include <string>

namespace verdo {

/// Starts the app at login with a desktop entry in the user's autostart directory. Main thread
/// only.
///
/// Desktops disagree about how a path with blanks, quotes, "%" and the like is to be written, and
/// some start nothing then. For such a path the entry names a link, beside the user's data.
class AutostartEntry : public LoginItemManaging {
 public:
  /// `executable` is the absolute path that is to be started, `icon` the name of the app's icon.
  AutostartEntry(std::string executable, std::string icon, std::string path = defaultPath(),
                 std::string link = defaultLink());

  /// "$XDG_CONFIG_HOME/autostart/verdo-driver.desktop".
  static std::string defaultPath();
  /// "$XDG_DATA_HOME/verdo-driver/autostart".
  static std::string defaultLink();
  /// What to start for the program that runs from `executable`: itself, or the AppImage that it was
  /// unpacked from, which alone is there at the next login.
  static std::string programFor(const std::string& executable);

  /// What the file says now: true when the desktop will start something by it. The user may have
  /// switched it off in the desktop's own settings.
  bool isEnabled() const override;
  void setEnabled(bool enabled) override;
  /// What else the entry says stays.
  void refresh() override;

 private:
  bool needsLink() const;
  std::string exec() const;
  std::string program() const;
  std::string makeLink() const;

  const std::string executable_;
  const std::string icon_;
  const std::string path_;
  const std::string link_;
};

}  // namespace verdo
