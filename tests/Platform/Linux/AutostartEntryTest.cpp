#include "VerdoDriver/Platform/Linux/AutostartEntry.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <gtest/gtest.h>

namespace verdo::test {

TEST(Autostart, ClaimsWhatTheDesktopDoesNotDo) {
  const TempDir config;
  const ScopedEnv env("XDG_CONFIG_HOME", config.path());
  const std::string path = config / "autostart/verdo-driver.desktop";
  const AppLogCapture log;
  AutostartEntry entry("/o/100%/\"$HOME\"/`id`/a\\b");
  entry.refresh();
  EXPECT_FALSE(entry.isEnabled()) << "made without being asked for";

  const std::string stale = "[Desktop Entry]\nType=Application\nX-Own=1\nExec=/old/app\n";
  for (const std::string off : {"Hidden=true\n", "X-GNOME-Autostart-enabled=false\n"}) {
    entry.setEnabled(true);
    EXPECT_TRUE(entry.isEnabled());
    config.write("autostart/verdo-driver.desktop", stale + off);
    EXPECT_FALSE(entry.isEnabled());
    entry.refresh();
    EXPECT_EQ(contentOf(path), stale + off);
  }
  config.write("autostart/verdo-driver.desktop", stale);
  entry.refresh();
  EXPECT_TRUE(contentOf(path).ends_with(
      R"(X-Own=1
Exec="/o/100%%/\\"\\$HOME\\"/\\`id\\`/a\\\\b"
)")) << contentOf(path);

  entry.setEnabled(false);
  EXPECT_FALSE(std::filesystem::exists(path));
  std::filesystem::create_directories(path + "/in");
  entry.setEnabled(true);
  entry.setEnabled(false);
  for (const std::string line : {"enabled", "disabled", "register failed: ",
                                 "register left it notRegistered", "unregister failed: "}) {
    EXPECT_TRUE(log.has("verdo.loginItem [LoginItem] " + line)) << line;
  }
}

}  // namespace verdo::test
