#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Executor.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

using test::ScopedEnv;
using test::TempDir;

TEST(DriverConfig, NeverShowsASecretInFull) {
  DriverConfig config("https://x.example", "abcdefghijkl");
  EXPECT_EQ(config.description(),
            "DriverConfig(server: https://x.example, token: …ijkl, exec: ego-browser nodejs, "
            "llmKey: none, llmBase: https://api.deepseek.com, maxJobs: server, pollWait: 25.0, "
            "insecure: false, dryRun: false, checkLLM: false, client: none)");
  config = DriverConfig("http://h:1", "");
  config.execCommand = "tool";
  config.llmKey = "schlüßel";
  config.llmBase = "https://p/v1";
  config.maxJobs = 2;
  config.pollWait = 0.1;
  config.insecure = config.dryRun = config.checkLLM = true;
  config.clientHeader = "app/1";
  config.caCertPath = config.envFilePath = "/hidden";
  EXPECT_EQ(config.description(),
            "DriverConfig(server: http://h:1, token: none, exec: tool, llmKey: …üßel, llmBase: "
            "https://p/v1, maxJobs: 2, pollWait: 0.1, insecure: true, dryRun: true, checkLLM: "
            "true, client: app/1)");
}

TEST(ExitReason, KeepsTheExitCodesThatScriptsRelyOn) {
  const struct {
    ExitReason reason;
    int code;
    const char* message;
  } cases[] = {
      {ExitReason::clean(), 0, ""},
      {ExitReason::serverUnreachable("a"), 1, "a"},
      {ExitReason::badConfig("b"), 2, "b"},
      {ExitReason::tokenRevoked("c"), 3, "c"},
      {ExitReason::outOfDate("d"), 6, "d"},
      {ExitReason::llmKeyRejected("e"), 7, "e"},
      {ExitReason::noExecutor("x"), 127, "x"},
      {ExitReason::stopped(), 130, ""},
  };
  for (const auto& [reason, code, message] : cases) {
    EXPECT_EQ(reason.code(), code);
    EXPECT_EQ(reason.message(), message);
  }
  EXPECT_EQ(ExitReason::badConfig("a"), ExitReason::badConfig("a"));
  EXPECT_FALSE(ExitReason::badConfig("a") == ExitReason::badConfig("b"));
  EXPECT_FALSE(ExitReason::badConfig("a") == ExitReason::outOfDate("a"));
}

TEST(ServerURLPolicy, LetsTheTokenTravelInClearOnLoopbackOnly) {
  const struct {
    const char* server;
    bool refused;
  } cases[] = {
      {"http://127.0.0.1", false},
      {"http://127.0.0.1:8765/base", false},
      {"http://localhost", false},
      {"http://localhost/", false},
      {"http://localhost:1/x", false},
      {"https://example.com", false},
      {"HTTP://example.com", false},
      {"", false},
      {"example.com", false},
      {"http://", true},
      {"http:///", true},
      {"http://example.com", true},
      {"http://192.168.0.7:8765", true},
      {"http://10.0.0.1/127.0.0.1", true},
      {"http://127.0.0.2", true},
      {"http://localhost.example.com", true},
      {"http://localhost@example.com", true},
      {"http://[::1]:8765", true},
      {"http://LOCALHOST", true},
  };
  for (const auto& [server, refused] : cases) {
    SCOPED_TRACE(server);
    const auto refusal = ServerURLPolicy::refusal(server, false);
    EXPECT_EQ(refusal, refused ? std::optional(std::string(server) +
                                               " is plain http off loopback — the token would "
                                               "travel in clear; use https:// or pass --insecure "
                                               "on a trusted network")
                               : std::nullopt);
    EXPECT_FALSE(ServerURLPolicy::refusal(server, true));
  }
}

TEST(ServerURLPolicy, LowersOnlyTheScheme) {
  EXPECT_EQ(ServerURLPolicy::lowerScheme("HTTPS://Host/Path"), "https://Host/Path");
  EXPECT_EQ(ServerURLPolicy::lowerScheme("Http://A://B"), "http://A://B");
  EXPECT_EQ(ServerURLPolicy::lowerScheme("HOST"), "HOST");
}

TEST(Constants, FindTheHomeDirectory) {
  const ScopedEnv home("HOME", "/home/someone");
  EXPECT_EQ(DriverConstants::envFile(), "/home/someone/.config/verdo/driver.env");
  EXPECT_EQ(DriverConstants::expandTilde("~"), "/home/someone");
  EXPECT_EQ(DriverConstants::expandTilde("~other/x"), "~other/x");
  EXPECT_EQ(DriverConstants::expandTilde("/a/~/b"), "/a/~/b");
  EXPECT_EQ(DriverConstants::lastFour("abc"), "abc");
  EXPECT_EQ(DriverConstants::lastFour("12345"), "2345");
}

TEST(Executor, LooksForTheFirstWord) {
  const TempDir directory;
  const std::string tool = directory.write("my tool", "", std::filesystem::perms{0755});
  EXPECT_EQ(Executor::locate("'my tool' nodejs", {directory.path()}), tool);
  EXPECT_EQ(Executor::locate("\"" + tool + "\"", {}), tool);
  for (const char* command : {"", "  ", "''", "'my tool", "no-such-tool-anywhere", "my tool"}) {
    EXPECT_EQ(Executor::locate(command, {directory.path()}), std::nullopt) << command;
  }
}

}  // namespace
}  // namespace verdo
