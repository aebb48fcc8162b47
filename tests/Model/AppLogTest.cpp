#include "VerdoDriver/Model/AppLog.h"
#include "tests/Support/AppLogCapture.h"

#include <gmock/gmock.h>

namespace verdo::test {

TEST(AppLog, LetsAServersTextForgeLinesOrCommandTheTerminal) {
  const AppLogCapture log;
  const std::string text = "refused: x\n[Supervisor] token ok\r\x1b[2J\u009b1m\u2028\u202e\xff";
  AppLog::connect.info(text);
  AppLog::connect.error(text);
  AppLog::connect.debug(text);
  const auto line =
      "verdo.connect refused: x\\x0a[Supervisor] token ok\\x0d\\x1b[2J\\x9b1m\\u2028\\u202e\uFFFD";
  EXPECT_THAT(log.lines(), testing::ElementsAre(line, line, line));
}

}  // namespace verdo::test
