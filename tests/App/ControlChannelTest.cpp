#include "VerdoDriver/App/ControlChannel.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/TempDir.h"

#include <fstream>
#include <future>

#include <gmock/gmock.h>

namespace verdo::test {

TEST(ControlChannel, LetsTwoAppsRunOrNoneAfterAKilledOne) {
  const TempDir directory;
  const std::string path = directory / "socket";
  std::ofstream(path) << "left behind";
  ControlServer first;
  first.handle("status", [] { return std::string("fine"); });
  ASSERT_TRUE(first.listen(path)) << first.error();
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
  ControlServer second;
  EXPECT_FALSE(second.listen(path));
  for (const auto& [command, reply] : {std::pair("status", "fine"), {"dance", "unknown command"}}) {
    auto answer = std::async(
        std::launch::async, [&] { return askRunningApp(path, command, std::chrono::seconds(10)); });
    ASSERT_TRUE(spinUntil(
        [&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    EXPECT_EQ(answer.get(), reply);
  }
  EXPECT_EQ(askRunningApp(directory / "nobody", "status"), std::nullopt);
}

}  // namespace verdo::test
