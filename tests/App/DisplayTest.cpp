#include "VerdoDriverCore/Process/ChildProcess.h"
#include "tests/Support/Children.h"
#include "tests/Support/Listener.h"
#include "tests/Support/TempDir.h"

#include <future>

#include <gmock/gmock.h>
#include <signal.h>

namespace verdo::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// The built app in a session that has only what is given.
class AppProcess {
 public:
  AppProcess(const std::string& home, const Lines& arguments, Environment environment)
      : child_(launch(home, arguments, environment)),
        output_(child_->takeStdout()),
        errors_(child_->takeStderr()) {
    output_.start();
    errors_.start();
  }
  ~AppProcess() {
    child_->signalGroup(SIGKILL);
    child_->wait();
  }
  int wait() {
    output_.all();
    return child_->wait();
  }
  std::string output() const { return output_.text(); }
  Lines errors() { return errors_.all(); }

 private:
  static std::unique_ptr<ChildProcess> launch(const std::string& home, Lines argv,
                                              Environment& environment) {
    argv.insert(argv.begin(), VERDO_APP_PROGRAM);
    environment.insert({{"HOME", home},
                        {"PATH", "/usr/bin:/bin"},
                        {"XDG_RUNTIME_DIR", home},
                        {"VERDO_LLM_BASE_URL", "http://127.0.0.1:1"},
                        {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home + "/no-bus"},
                        {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + home + "/no-bus"}});
    return Spawn::launch(VERDO_APP_PROGRAM, argv, environment, false);
  }

  std::unique_ptr<ChildProcess> child_;
  CollectedLines output_;
  CollectedLines errors_;
};

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
    AppProcess app(home.path(), {"--show"}, environment);
    EXPECT_EQ(app.wait(), 1) << line;
    EXPECT_THAT(app.errors(),
                ElementsAre(AllOf(StartsWith("verdo-driver-app: "), HasSubstr(line))));
  }
}

TEST(Display, IsAskedForByACommandThatShowsNothing) {
  const TempDir home;
  const auto endOf = [&](const std::string& option) {
    return AppProcess(home.path(), {option}, {}).wait();
  };
  const std::vector<std::pair<std::string, int>> alone{
      {"--help", 0}, {"--version", 0}, {"--status", 3}, {"--quit", 3}};
  for (const auto& [option, status] : alone) EXPECT_EQ(endOf(option), status) << option;

  AppProcess app(home.path(), {}, {{"QT_QPA_PLATFORM", "offscreen"}});
  ASSERT_TRUE(eventually([&] { return endOf("--status") == 0; }, std::chrono::seconds(20)));
  AppProcess status(home.path(), {"--status"}, {});
  EXPECT_EQ(status.wait(), 0);
  EXPECT_THAT(status.output(), HasSubstr("\"connection\""));
  for (const char* option : {"--show", "--quit"}) EXPECT_EQ(endOf(option), 0) << option;
  EXPECT_EQ(app.wait(), 0);
}

}  // namespace
}  // namespace verdo::test
