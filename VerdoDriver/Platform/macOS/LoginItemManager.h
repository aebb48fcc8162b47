#pragma once

#include "VerdoDriver/Model/LoginItem.h"

namespace verdo {

/// Starts the app at login as the system's service for the main app. Main thread only. Needs the
/// app to run from its bundle: the system finds no service otherwise.
class LoginItemManager : public LoginItemManaging {
 public:
  bool isEnabled() const override;
  void setEnabled(bool enabled) override;
  /// Nothing to correct: the system knows the app by its bundle, wherever that is moved to.
  void refresh() override {}
};

}  // namespace verdo
