#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/EnvFile.h"
#include "VerdoDriverCore/Contract/Executor.h"
#include "VerdoDriverCore/Contract/SecretScrub.h"
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
using testing::HasSubstr;

TEST(DriverConfig, NeverShowsASecretInFull) {
  DriverConfig config("https://x.example", "abcdefghijkl");
  EXPECT_THAT(config.description(), HasSubstr(" token: …ijkl, "));
  EXPECT_THAT(config.description(), HasSubstr(" llmKey: none, "));
  config.token = "";
  config.llmKey = "schlüßel";
  EXPECT_THAT(config.description(), HasSubstr(" token: none, "));
  EXPECT_THAT(config.description(), HasSubstr(" llmKey: …üßel, "));
}

TEST(ServerURLPolicy, LetsTheTokenTravelInClearOnLoopbackOnly) {
  for (const char* server : {"http://127.0.0.1", "http://127.0.0.1:8765/base", "http://localhost/",
                             "https://example.com", ""}) {
    EXPECT_EQ(ServerURLPolicy::refusal(server, false), std::nullopt) << server;
  }
  for (const std::string server :
       {"http://", "http:///localhost", "http://10.0.0.1/127.0.0.1", "http://127.0.0.2",
        "http://localhost.example.com", "http://host/?x=://localhost", "http://host#://localhost",
        "http://[::1]:8765", "http://LOCALHOST"}) {
    EXPECT_EQ(ServerURLPolicy::refusal(server, false),
              server +
                  " is plain http off loopback — the token would travel in clear; use "
                  "https:// or pass --insecure on a trusted network");
    EXPECT_EQ(ServerURLPolicy::refusal(server, true), std::nullopt);
  }
  EXPECT_EQ(lowerScheme("HTTPS://Host/A://B"), "https://Host/A://B");
}

TEST(ServerURLPolicy, TakesOrRepeatsAPassword) {
  for (const char* server :
       {"http://localhost:x@other-host", "http://localhost@other-host",
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

TEST(EnvFile, IsReadWhenOthersCanOrPassesForAnEmptyOne) {
  const TempDir directory;
  const auto open = [](const std::string& path) {
    return "InsecureError: " + path + " is readable by others — fix it first:  chmod 600 " + path;
  };
  // Only the mode counts: none would keep root from reading.
  for (const unsigned mode : {0400u, 0700u, 0640u, 0620u, 0610u, 0604u, 0602u, 0601u}) {
    const auto path = directory.write("file", "A=1\n", Mode{mode});
    Values values;
    EXPECT_EQ(failureOf([&] { values = EnvFile::read(path); }), mode & 077 ? open(path) : "");
    EXPECT_EQ(values.size(), mode & 077 ? 0u : 1u) << mode;
  }
  const auto& folder = directory.path();
  const auto latin = directory.write("latin", "A=gr\xfc\xdf\n");
  const auto fifo = directory / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  const std::pair<std::string, std::string> cases[] = {
      {directory / "none", ""},
      {latin + "/below", "OSError: [Errno 20] Not a directory: '" + latin + "/below'"},
      {folder, "OSError: [Errno 21] Is a directory: '" + folder + "'"},
      {latin, "UnicodeDecodeError: " + latin + " is not UTF-8 text"},
      {fifo, open(fifo)},
  };
  for (const auto& [path, failure] : cases) {
    EXPECT_EQ(failureOf([&path] { EnvFile::read(path); }), failure);
  }
}

TEST(Secrets, StayInTheEnvironmentsBytes) {
  // A caller may hand over a variable twice; unsetenv alone leaves every byte where it was.
  std::vector<std::string> entries{"VERDO_DRIVER_TOKEN=first", "A=1", "VERDO_DRIVER_TOKEN=second",
                                   "VERDO_LLM_API_KEY=key", "VERDO_LLM_API_KEYS=other"};
  std::vector<char*> pointers;
  for (auto& entry : entries) pointers.push_back(entry.data());
  pointers.push_back(nullptr);
  char** const before = std::exchange(environ, pointers.data());
  const Secrets secrets = eraseSecretsFromEnvironment();
  const Environment left = currentEnvironment();
  environ = before;
  EXPECT_EQ(secrets.token, "first");
  EXPECT_EQ(secrets.llmKey, "key");
  const auto blank = [](std::string name, std::size_t size) {
    return name + "=" + std::string(size, '\0');
  };
  EXPECT_THAT(entries, testing::ElementsAre(
                           blank("VERDO_DRIVER_TOKEN", 5), "A=1", blank("VERDO_DRIVER_TOKEN", 6),
                           blank("VERDO_LLM_API_KEY", 3), "VERDO_LLM_API_KEYS=other"));
  EXPECT_EQ(left, (Environment{{"A", "1"}, {"VERDO_LLM_API_KEYS", "other"}}));
}

TEST(SecretScrub, LetsASecretOrItsBeginningThrough) {
  const SecretScrub scrub{"", "s3cret/+\"key", "s3cret/+\"key-2", "%41b"};
  const std::pair<const char*, const char*> table[] = {
      {"no secret: s3cre, key", "no secret: s3cre, key"},
      {"a s3cret/+\"key b", "a … b"},
      {"s3cret/+\"keys3cret/+\"key", "……"},
      {"s3cret/+\"key-2", "…"},
      {"s3cret/+\"key-", "…"},
      {"?k=s3cret%2F%2b%22key&", "?k=…&"},
      {"%733cret/+\"key", "…"},
      {R"({"k": "s3cret\/+\"key"})", R"({"k": "…"})"},
      {R"({"k": "s3cret\u002F+\u0022key"})", R"({"k": "…"})"},
      {"%41b %2541b Ab", "… … Ab"},
      {"cut: s3cret%2", "cut: …"},
      {"cut: s3c", "cut: …"},
      {"cut: s3", "cut: s3"},
      {"s3cret\xff", "s3cret\xef\xbf\xbd"},
  };
  for (const auto& [text, expected] : table) EXPECT_EQ(scrub.scrubbed(text), expected);
  EXPECT_EQ(SecretScrub().scrubbed("%41 \\u"), "%41 \\u");
}

TEST(SecretScrub, CutsASecretInTwo) {
  const SecretScrub scrub{"s3cret"};
  for (std::size_t before = 0; before < 12; ++before) {
    const auto text = std::string(before, 'x') + "s3cretyy";
    const auto whole = std::string(before, 'x') + "…yy";
    EXPECT_EQ(scrub.excerpt(text, 10),
              before < 10 ? scrub.excerpt(whole, 10) : whole.substr(0, 10));
  }
}

TEST(Executor, DefaultsToAProgramThatIsNotThere) {
  const TempDir first;
  const TempDir second;
  const ScopedEnv path("PATH", second.path());
  const auto command = [&] { return Executor::defaultCommand({first.path()}); };
  EXPECT_EQ(command(), "ego-browser nodejs");
  first.write("verdo-browser", "", Mode{0700});
  EXPECT_EQ(command(), "verdo-browser nodejs");
  second.write("ego-browser", "", Mode{0700});  // wins from behind, too
  EXPECT_EQ(command(), "ego-browser nodejs");
}

}  // namespace
}  // namespace verdo
