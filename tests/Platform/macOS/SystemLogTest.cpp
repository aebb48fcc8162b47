#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/SystemLog.h"
#include "tests/Platform/macOS/FakeSystem.h"

namespace verdo::test {
namespace {

class SystemLogTest : public FakeSystem {};

TEST_F(SystemLogTest, LosesLevelsOrCategoriesOrHidesTexts) {
  openSystemLog("com.example.app");  // until `log` puts back what was there before
  AppLog::keychain.debug("100% fine\x1b");
  AppLog::keychain.info("second\r");
  AppLog::update.error("third\nline");
  qWarning("of another");
  EXPECT_THAT(fake::calls(), testing::ElementsAre("os_log_create com.example.app keychain",
                                                  "os_log keychain 2 %{public}s 100% fine\\x1b",
                                                  "os_log keychain 1 %{public}s second\\x0d",
                                                  "os_log_create com.example.app update",
                                                  "os_log update 16 %{public}s third\\x0aline"));
  EXPECT_THAT(log.lines(), testing::ElementsAre("default of another"));
}

}  // namespace
}  // namespace verdo::test
