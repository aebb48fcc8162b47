#include "VerdoDriver/Platform/Linux/AutostartEntry.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/FullDisk.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <gtest/gtest.h>

namespace verdo::test {
TEST(Autostart, ClaimsWhatTheDesktopDoesNotDo) {
  const TempDir config;
  const ScopedEnv env("XDG_CONFIG_HOME", config.path());
  const ScopedEnv data("XDG_DATA_HOME", config / "no plain path");
  const std::string path = config / "autostart/verdo-driver.desktop";
  const AppLogCapture log;
  AutostartEntry entry("/o/100%/\"$HOME\"/`id`/a\\b", "the.icon");
  entry.refresh();
  EXPECT_FALSE(entry.isEnabled()) << "made without being asked for";

  const std::string stale = "[Desktop Entry]\nType=Application\nX-Own=1\nExec=/old/app\n";
  for (const std::string off : {"Hidden=true\n", "X-GNOME-Autostart-enabled=false\n"}) {
    entry.setEnabled(true);
    EXPECT_TRUE(entry.isEnabled());
    EXPECT_NE(contentOf(path).find("\nIcon=the.icon\n"), std::string::npos);
    config.write("autostart/verdo-driver.desktop", stale + off);
    EXPECT_FALSE(entry.isEnabled());
    entry.refresh();
    EXPECT_EQ(contentOf(path), stale + off);
  }
  config.write("autostart/verdo-driver.desktop", stale);
  {
    const FullDisk disk;
    entry.refresh();
  }
  EXPECT_EQ(contentOf(path), stale) << "an entry is lost where there is no room for the next one";
  entry.refresh();
  EXPECT_TRUE(contentOf(path).ends_with(
      R"(X-Own=1
Exec="/o/100%%/\\"\\$HOME\\"/\\`id\\`/a\\\\b"
TryExec=/o/100%/"$HOME"/`id`/a\\b
)")) << contentOf(path);

  entry.setEnabled(false);
  EXPECT_FALSE(std::filesystem::exists(path));
  std::filesystem::create_directories(path + "/in");
  entry.setEnabled(true);
  entry.setEnabled(false);
  for (const std::string line : {"enabled", "disabled", "register failed: ", "refresh failed: ",
                                 "register left it notRegistered", "unregister failed: "}) {
    EXPECT_TRUE(log.has("verdo.loginItem [LoginItem] " + line)) << line;
  }
}

TEST(Autostart, StartsNothingForAnAwkwardPath) {
  const TempDir dir;
  const ScopedEnv config("XDG_CONFIG_HOME", dir / "config");
  const ScopedEnv data("XDG_DATA_HOME", dir / "data");
  const ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere");
  const std::string path = AutostartEntry::defaultPath();
  const std::string link = AutostartEntry::defaultLink();
  const char* const names[] = {"plain", "a b", "%f",    "\"q\"", "it's",      "$HOME", "`id`",
                               "a\\b",  "k=v", "a;b&c", "\xff",  "tab\there", "~b",    "ünïcode"};
  for (int i = 0; const std::string name : names) {
    const auto number = std::to_string(++i);
    std::filesystem::create_directory(dir / name);
    const auto program = dir.write(name + "/app", "#!/bin/sh\necho " + number + " >" + dir / "ran",
                                   std::filesystem::perms::owner_all);
    AutostartEntry entry(program, "the.icon");
    if (name == "plain") {
      entry.setEnabled(true);
      EXPECT_FALSE(std::filesystem::exists(link));
    }
    entry.refresh();  // from the path before
    const auto text = contentOf(path);
    for (const std::string key : {"\nExec=", "\nTryExec="}) {
      EXPECT_TRUE(text.find(key + (name == "plain" ? program : link) + "\n") != std::string::npos)
          << text;
    }
    EXPECT_EQ(std::system(("gio launch '" + path + "'").c_str()), 0) << name;
    EXPECT_TRUE(eventually([&] { return contentOf(dir / "ran") == number + "\n"; })) << name;
  }
  AutostartEntry("/o/$app", "the.icon").setEnabled(false);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
}

TEST(Autostart, StartsAnUnpackedImageOrWhatRunsUsFromOne) {
  const std::string image = "/i/app.AppImage", ours = "/tmp/.mount_1/usr/bin/app",
                    other = "/tmp/.mount_12/app";
  const std::tuple<std::string, const char*, std::string, std::string> table[] = {
      {image, "/tmp/.mount_1", ours, image},
      {image, "/tmp/.mount_1", other, other},
      {image, "", "/usr/bin/app", "/usr/bin/app"},
      {"app.AppImage", "/tmp/.mount_1", ours, ours},
  };
  for (const auto& [appImage, mount, executable, expected] : table) {
    const ScopedEnv one("APPIMAGE", appImage), two("APPDIR", mount);
    EXPECT_EQ(AutostartEntry::programFor(executable), expected) << mount;
  }
}

}  // namespace verdo::test
