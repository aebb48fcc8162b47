#include "VerdoDriver/Model/SettingsStore.h"
#include "VerdoDriver/Platform/NativeSettings.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <QSettings>
#include <cstdlib>

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using testing::HasSubstr;

TEST(Settings, AreForgottenOrMisread) {
  const TempDir directory;
  const auto file = QString::fromStdString(directory / "settings");
  const auto open = [&] {
    return std::make_unique<SettingsStore>(std::make_unique<QSettings>(file, QSettings::IniFormat));
  };
  const auto settings = open();
  EXPECT_EQ(settings->serverURL() + nameOf(settings->keepAwakeMode()), "always");
  EXPECT_TRUE(settings->autoStart() && !settings->launchAtLogin() && !settings->allowInsecure());
  EXPECT_EQ(settings->secretPlace(), std::nullopt);
  int announced = 0;
  QObject::connect(settings.get(), &SettingsStore::autoStartChanged, [&] { ++announced; });
  settings->setServerURL("https://ü.example/,;\"");
  settings->setLaunchAtLogin(true);
  settings->setKeepAwakeMode(KeepAwakeMode::whileJobRuns);
  settings->setAutoStart(false);
  settings->setAllowInsecure(true);
  EXPECT_EQ(announced, 1);

  // All is on the disk while the store lives; within one process Qt would show it in any case.
  EXPECT_THAT(contentOf(directory / "settings"),
              testing::AllOf(HasSubstr("keepAwakeMode=whileJobRuns"), HasSubstr("autoStart=false"),
                             HasSubstr("launchAtLogin=true"), HasSubstr("allowInsecure=true"),
                             HasSubstr("serverURL=\"https://")));

  const auto again = open();
  EXPECT_EQ(again->serverURL(), "https://ü.example/,;\"");
  EXPECT_EQ(again->keepAwakeMode(), KeepAwakeMode::whileJobRuns);
  EXPECT_TRUE(!again->autoStart() && again->launchAtLogin() && again->allowInsecure());
  QSettings(file, QSettings::IniFormat).setValue("keepAwakeMode", "sometimes");
  EXPECT_EQ(open()->keepAwakeMode(), KeepAwakeMode::always);
  using Place = SecretPlace::Kind;
  for (const auto& place :
       {SecretPlace{Place::secretService, "a:b"}, {Place::keychain, ""}, {Place::files, ""}}) {
    settings->setSecretPlace(place);
    EXPECT_EQ(open()->secretPlace(), place) << toText(place);
  }
}

TEST(Settings, ComeFromAFileThatIsNotTheUsers) {
  const TempDir user;
  const TempDir system;
  std::filesystem::create_directories(system / "verdo-driver");
  system.write("verdo-driver/settings.ini",
               "[General]\nallowInsecure=true\nserverURL=https://theirs\n");
  const ScopedEnv systemWide("XDG_CONFIG_DIRS", system.path());
  const ScopedEnv ofTheUser("XDG_CONFIG_HOME", user.path());
  // In a process of its own, since Qt looks at the places of settings once.
  const auto look = [] {
    const bool isSeen = nativeSettings()->value("allowInsecure").toBool();
    const SettingsStore settings(nativeSettings());
    std::_Exit(!isSeen ? 2 : settings.allowInsecure() || !settings.serverURL().empty() ? 1 : 0);
  };
  EXPECT_EXIT(look(), testing::ExitedWithCode(0), "");
}

TEST(Settings, AreLostWithoutAWordOrForGood) {
  const TempDir directory;
  const AppLogCapture log;
  directory.write("file", "");
  SettingsStore settings(std::make_unique<QSettings>(
      QString::fromStdString(directory / "file/settings"), QSettings::IniFormat));
  settings.setAutoStart(false);
  EXPECT_TRUE(
      log.has("verdo.settings [SettingsStore] cannot write " + directory / "file/settings"));
  EXPECT_FALSE(settings.autoStart() || settings.isWritable());
  settings.setServerURL("https://kept");

  std::filesystem::remove(directory / "file");
  std::filesystem::create_directory(directory / "file");
  settings.writeAgain();
  EXPECT_TRUE(settings.isWritable());
  EXPECT_THAT(contentOf(directory / "file/settings"), HasSubstr("serverURL=https://kept"));
  EXPECT_TRUE(settings.forgetAll());
  std::filesystem::create_directories(directory / "protected/inside");
  EXPECT_FALSE(
      SettingsStore(std::make_unique<QSettings>(QString::fromStdString(directory / "protected"),
                                                QSettings::IniFormat))
          .forgetAll());
}

}  // namespace
}  // namespace verdo::test
