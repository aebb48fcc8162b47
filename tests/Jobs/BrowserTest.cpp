#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "tests/Support/Children.h"
#include "tests/Support/RecordingLog.h"

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace test;
using namespace std::chrono_literals;
using testing::ElementsAre;

class BrowserTest : public testing::Test {
 protected:
  /// A browser that prints a text, whatever script it is given, and fails.
  Browser printing(const std::string& out) {
    return Browser({selfPath(), roleArgv({"print", out, "", "1"}), currentEnvironment()}, 20s, log,
                   Timings());
  }

  const std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
};

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
    const auto answer = printing(out).askForSpaces().spaces.value_or(std::vector<JV>{});
    for (const JV& space : answer) texts.push_back(PyJSON::text(space));
    EXPECT_EQ(texts, spaces) << out;
  }
  const std::string named = "__SPACES__[{\"name\": \"a\"}, {\"name\": \"\"}, {}, {\"name\": 7}]";
  EXPECT_THAT(printing(named).spaceNames(), ElementsAre("a", "7"));
  EXPECT_THAT(log->lines(), testing::IsEmpty());
}

}  // namespace
}  // namespace verdo
