#pragma once

#include "VerdoDriver/Model/Clock.h"
#include "VerdoDriver/Model/LoginItem.h"
#include "VerdoDriver/Model/PowerAssertion.h"
#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Model/SystemEvents.h"

#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// What this system offers the app, ready to be given to its model.
struct PlatformParts {
  std::shared_ptr<Clock> clock;
  std::shared_ptr<SecretStore> secrets;
  std::shared_ptr<PowerAssertion> powerAssertion;
  std::shared_ptr<LoginItemManaging> loginItems;
  std::unique_ptr<WakeMonitor> wakeMonitor;
  std::unique_ptr<PathMonitor> pathMonitor;
  /// Of the package that brings a browser tool; empty where there is none.
  std::string browserPackage;
};

/// `appId` names the app to the system; `usedBefore`: where secrets were kept so far. Main thread,
/// once the application object is there. Asks nothing of the system yet but where it is.
PlatformParts makePlatformParts(const std::string& appId,
                                const std::optional<SecretPlace>& usedBefore);

/// The name of this computer, for a person to recognise it by.
std::string hostName();

}  // namespace verdo
