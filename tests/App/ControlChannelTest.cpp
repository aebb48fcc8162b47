#include "VerdoDriver/App/ControlChannel.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <vector>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace verdo::test {
namespace {

/// While the main thread goes on.
std::optional<std::string> answerTo(const std::string& path, const std::string& command) {
  auto answer = std::async(std::launch::async,
                           [&] { return askRunningApp(path, command, std::chrono::seconds(10)); });
  EXPECT_TRUE(spinUntil(
      [&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  return answer.get();
}

/// That this process has open.
std::ptrdiff_t descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace

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
  EXPECT_EQ(answerTo(path, "status"), "fine");
  EXPECT_EQ(answerTo(path, "dance"), "unknown command");
  EXPECT_TRUE(isAppAlive(path));
  EXPECT_EQ(askRunningApp(directory / "nobody", "status"), std::nullopt);
  EXPECT_FALSE(isAppAlive(directory / "nobody"));
}

TEST(ControlChannel, CutsALongAnswerOrHoldsADescriptorForEachOfManyCallers) {
  const TempDir directory;
  const std::string path = directory / "socket";
  const std::string longReply(1 << 20, 'x');  // more than a socket takes at once
  ControlServer server;
  server.handle("status", [&] { return longReply; });
  ASSERT_TRUE(server.listen(path)) << server.error();
  EXPECT_TRUE(answerTo(path, "status") == longReply);

  const auto before = descriptors();
  std::vector<UniqueFd> callers;
  for (int i = 0; i < 200; ++i) {
    callers.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    (void)::connect(callers.back().get(), reinterpret_cast<const sockaddr*>(&address),
                    sizeof address);
    spin();
  }
  EXPECT_LT(descriptors() - before, 200 + 100);
  callers.clear();
  EXPECT_TRUE(answerTo(path, "status") == longReply);
}

TEST(ControlChannel, TrustsADirectoryThatNoSocketFitsIn) {
  const TempDir directory;
  const std::string deep = directory / std::string(100, 'd');
  std::filesystem::create_directory(deep);
  for (const auto& [runtime, isTaken] :
       {std::pair(directory.path(), true), {deep, false}, {std::string("."), false}}) {
    const ScopedEnv environment("XDG_RUNTIME_DIR", runtime);
    EXPECT_EQ(controlSocketPath() == runtime + "/verdo-driver-app.socket", isTaken) << runtime;
  }
}

}  // namespace verdo::test
