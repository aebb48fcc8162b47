#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/EnvFile.h"
#include "VerdoDriverCore/Contract/Executor.h"
#include "VerdoDriverCore/Contract/Secrets.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/Values/Url.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

using namespace test;
using Values = std::map<std::string, std::string>;
using Mode = std::filesystem::perms;

TEST(DriverConfig, NeverShowsASecretInFull) {
  DriverConfig config("https://x.example", "abcdefghijkl");
  EXPECT_EQ(config.description(),
            "DriverConfig(server: https://x.example, token: …ijkl, exec: ego-browser nodejs, "
            "llmKey: none, llmBase: https://api.deepseek.com, maxJobs: server, pollWait: 25.0, "
            "insecure: false, dryRun: false, checkLLM: false, client: none)");
  config.token = "";
  config.llmKey = "schlüßel";
  config.maxJobs = 2;
  config.caCertPath = config.envFilePath = "/hidden";
  EXPECT_THAT(config.description(), testing::HasSubstr(" token: none, "));
  EXPECT_THAT(config.description(), testing::HasSubstr(" llmKey: …üßel, "));
  EXPECT_THAT(config.description(), testing::HasSubstr(" maxJobs: 2, "));
  EXPECT_THAT(config.description(), testing::Not(testing::HasSubstr("hidden")));
}

TEST(ServerURLPolicy, LetsTheTokenTravelInClearOnLoopbackOnly) {
  for (const char* server : {"http://127.0.0.1", "http://127.0.0.1:8765/base", "http://localhost/",
                             "http://localhost:1/x", "https://example.com", "HTTP://a.b", ""}) {
    EXPECT_EQ(ServerURLPolicy::refusal(server, false), std::nullopt) << server;
  }
  for (const std::string server :
       {"http://", "http:///", "http://example.com", "http://192.168.0.7:8765",
        "http://10.0.0.1/127.0.0.1", "http://127.0.0.2", "http://localhost.example.com",
        "http://host/?x=://localhost", "http://host#://localhost", "http://[::1]:8765",
        "http://LOCALHOST"}) {
    EXPECT_EQ(ServerURLPolicy::refusal(server, false),
              server +
                  " is plain http off loopback — the token would travel in clear; use "
                  "https:// or pass --insecure on a trusted network");
    EXPECT_EQ(ServerURLPolicy::refusal(server, true), std::nullopt);
  }
  EXPECT_FALSE(Url::parse("http:///localhost"));
  EXPECT_EQ(lowerScheme("HTTPS://Host/A://B"), "https://Host/A://B");
}

TEST(ServerURLPolicy, TakesOrRepeatsAPassword) {
  for (const char* server :
       {"http://localhost:x@other-host", "http://localhost@other-host", "https://ada:pw@host/",
        "http://localhost\\@other-host", "https://ada:p w@host", "HTTPS://ada:pw@host"}) {
    for (const bool insecure : {false, true}) {
      EXPECT_EQ(ServerURLPolicy::refusal(server, insecure),
                "a server URL must not hold a user name or password")
          << server;
    }
  }
}

TEST(EnvFile, ParsesLines) {
  const std::pair<std::string, Values> cases[] = {
      {"\n\r\n \t\n# A=1\n  # B=2\nno equals sign\n", {}},
      {"KEY = \"a b\" ", {{"KEY", "a b"}}},
      {"K='\"x\"'", {{"K", "x"}}},
      {"K=' x '", {{"K", " x "}}},
      {"K=x'y", {{"K", "x'y"}}},
      {"K=a=b # c", {{"K", "a=b # c"}}},
      {"K=", {{"K", ""}}},
      {"A=1\r\nB=2\r\n", {{"A", "1"}, {"B", "2"}}},
      {"\tA\t=\t1\t\n A = 2", {{"A", "2"}}},
      {"export A=$HOME\\n", {{"export A", "$HOME\\n"}}}};
  for (const auto& [text, values] : cases) EXPECT_EQ(EnvFile::parse(text), values) << text;
}

// Only the mode counts, so the table holds for root as well, whom no mode keeps from reading.
TEST(EnvFile, IsReadOnlyWhenNobodyElseCan) {
  const TempDir directory;
  for (const unsigned mode : {0600u, 0400u, 0700u}) {
    const auto path = directory.write("private", "A=1\n", Mode{mode});
    EXPECT_EQ(EnvFile::read(path), (Values{{"A", "1"}})) << mode;
  }
  for (const unsigned mode : {0644u, 0640u, 0620u, 0610u, 0604u, 0602u, 0601u, 0004u}) {
    const auto path = directory.write("open", "A=1\n", Mode{mode});
    EXPECT_EQ(
        failureOf([&] { EnvFile::read(path); }),
        "InsecureError: " + path + " is readable by others — fix it first:  chmod 600 " + path);
  }
}

TEST(EnvFile, ThatCannotBeReadPassesForAnEmptyOne) {
  const TempDir directory;
  const auto file = directory.write("file", "");
  const auto folder = directory / "folder";
  std::filesystem::create_directory(folder);
  std::filesystem::permissions(folder, Mode{0700});
  const auto latin = directory.write("latin", "A=gr\xfc\xdf\n");
  const auto fifo = directory / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  const std::pair<std::string, std::string> cases[] = {
      {directory / "none", ""},
      {file + "/below", "OSError: [Errno 20] Not a directory: '" + file + "/below'"},
      {folder, "OSError: [Errno 21] Is a directory: '" + folder + "'"},
      {latin, "UnicodeDecodeError: " + latin + " is not UTF-8 text"},
      {fifo,
       "InsecureError: " + fifo + " is readable by others — fix it first:  chmod 600 " + fifo},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(failureOf([&] { EnvFile::read(row.first); }), row.second);
  }
}

/// An environment of this process that lasts for a scope.
class OwnEnvironment {
 public:
  explicit OwnEnvironment(std::vector<std::string>& entries) : before_(environ) {
    for (auto& entry : entries) pointers_.push_back(entry.data());
    pointers_.push_back(nullptr);
    environ = pointers_.data();
  }
  ~OwnEnvironment() { environ = before_; }
  OwnEnvironment(const OwnEnvironment&) = delete;
  OwnEnvironment& operator=(const OwnEnvironment&) = delete;

 private:
  char** const before_;
  std::vector<char*> pointers_;
};

TEST(Secrets, StayInTheEnvironmentsBytes) {
  // A caller may hand over a variable twice; unsetenv alone leaves every byte where it was.
  std::vector<std::string> entries{"VERDO_DRIVER_TOKEN=first", "A=1", "VERDO_DRIVER_TOKEN=second",
                                   "VERDO_LLM_API_KEY=key", "VERDO_LLM_API_KEYS=other"};
  const OwnEnvironment environment(entries);
  const Secrets secrets = eraseSecretsFromEnvironment();
  EXPECT_EQ(secrets.token, "first");
  EXPECT_EQ(secrets.llmKey, "key");
  const auto blank = [](std::string name, std::size_t size) {
    return name + "=" + std::string(size, '\0');
  };
  EXPECT_THAT(entries, testing::ElementsAre(
                           blank("VERDO_DRIVER_TOKEN", 5), "A=1", blank("VERDO_DRIVER_TOKEN", 6),
                           blank("VERDO_LLM_API_KEY", 3), "VERDO_LLM_API_KEYS=other"));
  EXPECT_EQ(currentEnvironment(), (Environment{{"A", "1"}, {"VERDO_LLM_API_KEYS", "other"}}));
}

TEST(Executor, DefaultsToAProgramThatIsNotThere) {
  const TempDir first;
  const TempDir second;
  const ScopedEnv path("PATH", second.path());
  const auto command = [&] { return Executor::defaultCommand({first.path()}); };
  const auto install = [](const TempDir& where, const char* name) {
    where.write(name, "", Mode{0700});
  };
  EXPECT_EQ(command(), "ego-browser nodejs");
  install(first, "verdo-browser");
  EXPECT_EQ(command(), "verdo-browser nodejs");
  install(second, "ego-browser");  // wins from behind, too
  EXPECT_EQ(command(), "ego-browser nodejs");
}

}  // namespace
}  // namespace verdo
