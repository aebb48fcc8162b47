#pragma once

#include "VerdoDriver/Model/DriverLog.h"
#include "VerdoDriver/Model/DriverSupervisor.h"
#include "VerdoDriver/Model/LoginItem.h"
#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Model/SettingsStore.h"

#include <QObject>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace verdo {

/// Takes away all that the app keeps on this computer but for its log: stops the driver, then
/// removes the secrets, what jobs have left, the start at login and the settings. What cannot be
/// removed stays, and the rest goes nevertheless. Main thread only.
class Removal : public QObject {
  Q_OBJECT
 public:
  /// What stays, each with its reason, in words for the user.
  using Left = std::vector<std::string>;

  struct Parts {
    DriverSupervisor* supervisor = nullptr;  ///< outlives the removal, as do the settings
    SettingsStore* settings = nullptr;
    std::shared_ptr<SecretStore> secrets;
    std::shared_ptr<LoginItemManaging> loginItems;
    std::shared_ptr<DriverLog> log;
    /// Removes what jobs have left. Blocks; is run in the background.
    std::function<Left()> removeTraces;
  };
  explicit Removal(Parts parts) : parts_(std::move(parts)) {}

  /// `done` comes later, once, unless the removal is gone by then. Nothing while one is under way.
  void begin(std::function<void(const Left&)> done);
  bool isUnderWay() const { return done_ != nullptr; }

 private:
  void removeSecrets();
  void removeTraces();
  void removeChoices();
  void note(const Left& left);

  const Parts parts_;
  std::function<void(const Left&)> done_;  ///< while one is under way
  Left left_;
};

}  // namespace verdo
