#pragma once

#include "VerdoDriver/Model/DriverState.h"
#include "VerdoDriver/Model/SettingsStore.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/ManualClock.h"
#include "tests/Support/RecordingDriverLog.h"
#include "tests/Support/ScriptedDriver.h"
#include "tests/Support/TempDir.h"

#include <QSettings>

#include <gmock/gmock.h>

namespace verdo::test {

/// The alternatives of DriverState, for tables.
enum class Kind { idle, waiting, starting, running, backoff, stopped };

inline Kind kindOf(const DriverState& state) { return static_cast<Kind>(state.index()); }

/// What the parts of the app are made with, the driver scripted, and time that passes when the test
/// says so.
class AppFixture : public testing::Test {
 protected:
  const TempDir home;
  const AppLogCapture appLog;
  const std::shared_ptr<RecordingDriverLog> log = std::make_shared<RecordingDriverLog>();
  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  const std::shared_ptr<ScriptedFactory> factory = std::make_shared<ScriptedFactory>();
  SettingsStore settings{
      std::make_unique<QSettings>(QString::fromStdString(home / "settings"), QSettings::IniFormat)};
};

}  // namespace verdo::test
