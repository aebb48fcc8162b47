#pragma once

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
