#include "tests/Support/Listener.h"
#include "tests/Support/Program.h"

#include <algorithm>
#include <future>

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// In a session that has only what is given.
Environment session(const std::string& home, Environment environment) {
  environment.insert({{"HOME", home},
                      {"PATH", "/usr/bin:/bin"},
                      {"XDG_RUNTIME_DIR", home},
                      {"VERDO_LLM_BASE_URL", "http://127.0.0.1:1"},
                      {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home + "/no-bus"},
                      {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + home + "/no-bus"}});
  return environment;
}

TEST(Display, ThatCannotBeOpenedAbortsOrLeavesTheUserGuessing) {
  const TempDir home;
  // X servers on TCP have the ports from 6000 on. This one turns everybody away.
  const Listener refusing;
  const auto turnsAway = std::async(std::launch::async, [&] { refusing.accept(); });
  const std::string refusingDisplay = "127.0.0.1:" + std::to_string(refusing.port() - 6000);
  const std::vector<std::pair<Environment, std::string>> cases{
      {{}, ": there is no display; start it from your desktop session"},
      {{{"DISPLAY", ":4999"}}, ": could not connect to display :4999; start it from"},
      {{{"DISPLAY", refusingDisplay}}, ": could not connect to display " + refusingDisplay + "; "},
      {{{"WAYLAND_DISPLAY", "nobody"}}, "; "},
      {{{"QT_QPA_PLATFORM", "nonsense"}}, "\"nonsense\" in \"\"; install that plugin"},
  };
  for (const auto& [environment, line] : cases) {
    Program app({"--show"}, session(home.path(), environment));
    EXPECT_EQ(app.wait(), 1) << line;
    EXPECT_THAT(app.errors(), AllOf(StartsWith("verdo-driver-app: "), HasSubstr(line)));
    EXPECT_EQ(std::ranges::count(app.errors(), '\n'), 1) << app.errors();
  }
}

TEST(Display, IsAskedForByACommandThatShowsNothing) {
  const TempDir home;
  const auto endOf = [&](const std::string& option) {
    return Program({option}, session(home.path(), {})).wait();
  };
  const std::vector<std::pair<std::string, int>> alone{
      {"--help", 0}, {"--version", 0}, {"--status", 3}, {"--quit", 3}};
  for (const auto& [option, status] : alone) EXPECT_EQ(endOf(option), status) << option;

  Program app({}, session(home.path(), {{"QT_QPA_PLATFORM", "offscreen"}}));
  ASSERT_TRUE(eventually([&] { return endOf("--status") == 0; }, std::chrono::seconds(20)));
  Program status({"--status"}, session(home.path(), {}));
  EXPECT_EQ(status.wait(), 0);
  EXPECT_THAT(status.output(), HasSubstr("\"connection\""));
  for (const char* option : {"--show", "--quit"}) EXPECT_EQ(endOf(option), 0) << option;
  EXPECT_EQ(app.wait(), 0);
}

}  // namespace
}  // namespace verdo::test
