#include "LocalService/LocalService.h"
#include "VerdoDriver/App/ControlChannel.h"
#include "tests/Support/Children.h"
#include "tests/Support/TempDir.h"

#include <QSettings>

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/// The program itself, set up for a service, with its real time constants.
class AppProgram : public testing::Test {
 protected:
  AppProgram() {
    service.start();
    const std::string secrets = home / ".local/share/verdo-driver/secrets";
    std::filesystem::create_directories(secrets);
    std::filesystem::permissions(secrets, std::filesystem::perms(0700));
    home.write(".local/share/verdo-driver/secrets/driver-token", service.token());
    std::filesystem::create_directories(home / ".local/bin");
    home.write(".local/bin/ego-browser",
               "#!/bin/sh\ncase \"$(cat)\" in sleep) echo ready; exec sleep 600;; esac",
               std::filesystem::perms(0700));
    QSettings settings(QString::fromStdString(home / ".config/verdo-driver/settings.ini"),
                       QSettings::IniFormat);
    settings.setValue("serverURL", QString::fromStdString(service.url()));
    settings.setValue("secretPlace", "files");
    settings.sync();
    Environment environment{{"HOME", home.path()},
                            {"PATH", "/usr/bin:/bin"},
                            {"XDG_RUNTIME_DIR", home.path()},
                            {"QT_QPA_PLATFORM", "offscreen"},
                            {"VERDO_LLM_BASE_URL", "http://127.0.0.1:1"},
                            {"LC_ALL", "ar_EG.UTF-8"}};
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
      if (const char* value = std::getenv(name)) environment[name] = value;
    }
    app = Spawn::launch(VERDO_APP_PROGRAM, {VERDO_APP_PROGRAM}, environment, true);
    output = std::make_unique<CollectedLines>(app->takeStdout());
    output->start();
  }

  std::string ask(const std::string& command) const {
    return askRunningApp(home / "verdo-driver-app.socket", command).value_or("");
  }

  const TempDir home;
  local::LocalService service;
  std::unique_ptr<ChildProcess> app;
  std::unique_ptr<CollectedLines> output;
};

TEST_F(AppProgram, StaysWithItsJobsWhenItQuitsAndTheServiceIsSilent) {
  for (const char* lane : {"mail", "crm"}) service.jobs().add({.label = lane, .payload = "sleep"});
  for (const int id : {1, 2}) ASSERT_TRUE(service.jobs().waitForLine(id, "ready", 30s));
  service.outage(local::OutageKind::hang, 60s);
  EXPECT_EQ(ask("quit"), "quitting");
  EXPECT_THAT(ask("status"), HasSubstr(R"("title": "Stopping\u2026")"));
  EXPECT_EQ(ask("quit"), "quitting");  // does not hurry it
  std::optional<int> status;
  EXPECT_TRUE(eventually([&] { return (status = app->poll()).has_value(); }, 40s));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(eventually([&] { return processesOf(home.path()).empty(); }));
  EXPECT_THAT(contentOf(home / ".local/state/verdo-driver/driver.log"),
              HasSubstr(" » run #1 ended: exit 130"));
}

}  // namespace
}  // namespace verdo::test
