#include "VerdoDriver/Platform/macOS/LoginItemManager.h"
#include "tests/Platform/macOS/FakeSystem.h"

namespace verdo::test {
namespace {

class LoginItemManagerTest : public FakeSystem {};

TEST_F(LoginItemManagerTest, TellsAnotherOutcomeThanTheSystems) {
  const struct {
    bool isWanted;
    std::string error;
    long status;
    std::vector<std::string> lines;
  } table[] = {
      {true, "", 1, {"enabled"}},
      {true, "", 0, {"register left it notRegistered"}},
      {true, "", 2, {"requires approval in System Settings › General › Login Items"}},
      {true, "", 3, {"service not found"}},
      {true, "", 9, {"unknown status 9"}},
      {true, "not today", 0, {"register failed: not today", "register left it notRegistered"}},
      {false, "", 0, {"disabled"}},
      {false, "not today", 1, {"unregister failed: not today"}},
  };
  LoginItemManager manager;
  std::vector<std::string> lines;
  std::vector<std::string> calls;
  for (const auto& row : table) {
    fake::setLoginItemError(row.error);
    fake::setLoginItemStatus(row.status);
    manager.setEnabled(row.isWanted);
    calls.emplace_back(row.isWanted ? "register" : "unregister");
    for (const auto& line : row.lines) lines.push_back("verdo.loginItem [LoginItem] " + line);
    EXPECT_EQ(manager.isEnabled(), row.status == 1) << row.status;
  }
  EXPECT_EQ(log.lines(), lines);
  EXPECT_EQ(fake::calls(), calls);
}

}  // namespace
}  // namespace verdo::test
