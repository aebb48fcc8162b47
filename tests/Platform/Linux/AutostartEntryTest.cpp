#include "VerdoDriver/Platform/Linux/AutostartEntry.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace verdo::test {
namespace {

/// What a desktop would start for the entry: its Exec line read the way GLib does it.
std::vector<std::string> startedBy(const std::string& path) {
  const GLibPtr<GKeyFile> file(g_key_file_new());
  EXPECT_TRUE(g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr));
  const GLibPtr<gchar> exec(g_key_file_get_string(file.get(), "Desktop Entry", "Exec", nullptr));
  std::string line = exec ? exec.get() : "";
  for (auto at = line.find("%%"); at != line.npos; at = line.find("%%", at + 1)) line.erase(at, 1);
  gint count = 0;
  gchar** words = nullptr;
  EXPECT_TRUE(g_shell_parse_argv(line.c_str(), &count, &words, nullptr)) << line;
  std::vector<std::string> argv(words, words + count);
  g_strfreev(words);
  return argv;
}

class Autostart : public testing::Test {
 protected:
  TempDir config_;
  const ScopedEnv env_{"XDG_CONFIG_HOME", config_.path()};
  const std::string path_ = config_ / "autostart/verdo-driver.desktop";
  AppLogCapture log_;
};

TEST_F(Autostart, StartsSomethingElse) {
  for (const std::string executable :
       {"/usr/bin/verdo-driver-app", "/opt/Verdo Driver/app", "/o/100%f/%%", "/o/\"$HOME\"/`id`",
        "/o/back\\slash\\n", "/o/a;b&c#d'e", "/o/Grüße", "/o/tab\tnew\nline"}) {
    AutostartEntry entry(executable);
    entry.setEnabled(true);
    EXPECT_TRUE(entry.isEnabled());
    EXPECT_EQ(startedBy(path_), std::vector{executable});
  }
  EXPECT_TRUE(log_.has("verdo.loginItem [LoginItem] enabled"));
}

TEST_F(Autostart, ClaimsWhatTheDesktopDoesNotDo) {
  AutostartEntry entry("/new/app");
  EXPECT_FALSE(entry.isEnabled());
  entry.refresh();
  EXPECT_FALSE(std::filesystem::exists(path_)) << "made without being asked for";

  entry.setEnabled(true);
  const std::string stale = "[Desktop Entry]\nType=Application\nExec=/old/app\nX-Own=1\n";
  for (const std::string off : {"Hidden=true\n", "X-GNOME-Autostart-enabled=false\n"}) {
    config_.write("autostart/verdo-driver.desktop", stale + off);
    EXPECT_FALSE(entry.isEnabled());
    entry.refresh();
    EXPECT_EQ(contentOf(path_), stale + off);
    entry.setEnabled(true);
    EXPECT_TRUE(entry.isEnabled());
  }
  config_.write("autostart/verdo-driver.desktop", stale);
  EXPECT_TRUE(entry.isEnabled());
  entry.refresh();
  EXPECT_EQ(startedBy(path_), std::vector<std::string>{"/new/app"});
  EXPECT_NE(contentOf(path_).find("X-Own=1"), std::string::npos);

  entry.setEnabled(false);
  entry.setEnabled(false);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_TRUE(log_.has("[LoginItem] disabled"));

  std::filesystem::create_directories(path_ + "/in");
  entry.setEnabled(true);
  entry.setEnabled(false);
  EXPECT_FALSE(entry.isEnabled());
  for (const char* line :
       {"register failed: ", "register left it notRegistered", "unregister failed: "}) {
    EXPECT_TRUE(log_.has(std::string("[LoginItem] ") + line)) << line;
  }
}

}  // namespace
}  // namespace verdo::test
