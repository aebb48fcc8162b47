#include "VerdoDriver/App/ControlChannel.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/Sanitized.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <vector>

#include <gmock/gmock.h>
#include <sys/resource.h>
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

UniqueFd silentCaller(const std::string& path) {
  UniqueFd caller(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  (void)::connect(caller.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return caller;
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
    callers.push_back(silentCaller(path));
    spin();
  }
  EXPECT_LT(descriptors() - before, 200 + 100);
  callers.clear();
  EXPECT_TRUE(answerTo(path, "status") == longReply);
}

TEST(ControlChannel, SpinsWhereNoDescriptorIsLeftForACaller) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer looks at memory through descriptors of its own";
  const TempDir directory;
  const std::string path = directory / "socket";
  ControlServer server;
  server.handle("status", [] { return std::string("fine"); });
  ASSERT_TRUE(server.listen(path)) << server.error();
  const auto caller = silentCaller(path);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const auto next = static_cast<rlim_t>(UniqueFd(::dup(caller.get())).get());
  const rlimit none{.rlim_cur = next, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto begin = std::clock();
  spinUntil([] { return false; }, std::chrono::milliseconds(500));
  EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC / 5);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(answerTo(path, "status"), "fine");
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
