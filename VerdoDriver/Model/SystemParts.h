#pragma once

#include "VerdoDriver/Model/Clock.h"
#include "VerdoDriver/Model/LoginItem.h"
#include "VerdoDriver/Model/PowerAssertion.h"
#include "VerdoDriver/Model/SecretStore.h"
#include "VerdoDriver/Model/SystemEvents.h"

#include <functional>
#include <memory>
#include <string>

namespace verdo {

/// What the system offers the app's model; all is there, but for what is said to be optional.
struct SystemParts {
  std::shared_ptr<Clock> clock;
  std::shared_ptr<SecretStore> secrets;
  std::shared_ptr<PowerAssertion> powerAssertion;
  std::shared_ptr<LoginItemManaging> loginItems;
  std::unique_ptr<WakeMonitor> wakeMonitor;  ///< optional
  std::unique_ptr<PathMonitor> pathMonitor;  ///< optional
  /// Of the package that brings a browser tool; empty where there is none.
  std::string browserPackage;
  /// Whether another program lies where the running one was started from; not so once that is gone
  /// for good. Cheap. Null where it cannot be told.
  std::function<bool()> isProgramReplaced;
};

}  // namespace verdo
