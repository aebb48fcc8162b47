#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "tests/Support/Children.h"
#include "tests/Support/RecordingLog.h"
#include "tests/Support/TempDir.h"

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using Line = RecordingLog::Line;

class BrowserTest : public testing::Test {
 protected:
  Browser browser(const Lines& role) {
    return Browser({selfPath(), roleArgv(role), currentEnvironment()}, 20s, log, Timings());
  }
  /// A browser that prints a text, whatever script it is given.
  Browser printing(const std::string& out, const std::string& err = "", int exit = 0) {
    return browser({"print", out, err, std::to_string(exit)});
  }

  const std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
};

TEST_F(BrowserTest, EmptyLinesEscapeTheLimitOfAScriptsOutput) {
  const auto result = browser({"blank", "2000000"}).run("x");
  EXPECT_EQ(result.exit, 0);
  EXPECT_LT(result.lines.size(), 600'000u);
}

TEST_F(BrowserTest, DividesByAGraceWithoutPauses) {
  Timings timings;
  timings.termination.step = 0ms;
  timings.scriptStopping = 50ms;
  Browser hanging({selfPath(), roleArgv({"noinput"}), currentEnvironment()}, 20s, log, timings);
  hanging.beginStopping();
  EXPECT_EQ(hanging.run("x").exit, 124);
}

TEST_F(BrowserTest, SendsItsTwoScripts) {
  const TempDir directory;
  const std::string script = directory / "script";
  EXPECT_TRUE(browser({"swallow", script}).closeSpace("it's \"é\"\n"));
  EXPECT_EQ(contentOf(script),
            "await completeTaskSpace(\"it's \\\"\\u00e9\\\"\\n\", { keep: false })\n"
            "cliLog('closed')\n");
  EXPECT_FALSE(printing("", "", 1).closeSpace("x"));
  EXPECT_THAT(log->lines(), ElementsAre(Line{'i', "space 'it\\'s \"é\"\\n': close -> exit 0"},
                                        Line{'w', "space 'x': close -> exit 1"}));
  browser({"swallow", script}).askForSpaces();
  EXPECT_EQ(contentOf(script),
            "const spaces = await listTaskSpaces()\n"
            "cliLog('__SPACES__' + JSON.stringify(spaces || []))\n");
}

TEST_F(BrowserTest, ReadsTheFirstAnswerOnly) {
  const std::pair<const char*, Lines> cases[] = {
      {"no marker [{}]\n", {}},
      {"__SPACES__[{\"name\": \"a\"}, 3, null, [], {\"b\": 1}]\n",
       {"{\"name\": \"a\"}", "{\"b\": 1}"}},
      {"noise\nlog: __SPACES__[{\"a\": \"__SPACES__\"}]\r\nmore", {"{\"a\": \"__SPACES__\"}"}},
      {"__SPACES__{broken\n__SPACES__[{\"a\": 1}]\n", {}},
      {"__SPACES__{\"a\": 1}\n", {}},
      {"__SPACES__\n", {}}};
  for (const auto& [out, spaces] : cases) {
    Lines texts;
    const auto answer = printing(out, "", 1).askForSpaces().spaces.value_or(std::vector<JV>{});
    for (const JV& space : answer) texts.push_back(PyJSON::text(space));
    EXPECT_EQ(texts, spaces) << out;
  }
  const std::string named = "__SPACES__[{\"name\": \"a\"}, {\"name\": \"\"}, {}, {\"name\": 7}]";
  EXPECT_THAT(printing(named).spaceNames(), ElementsAre("a", "7"));
  EXPECT_THAT(log->lines(), testing::IsEmpty());
}

}  // namespace
}  // namespace verdo
