#include "tests/Support/DriverFixture.h"

#include <filesystem>

namespace verdo::test {
namespace {

using nlohmann::ordered_json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kHint =
    "driver out of date — re-run the install command from the Browser driver card";

class Hello : public DriverFixture {
 protected:
  Hello() { config.dryRun = true; }
  void forget() {
    log = std::make_shared<RecordingLog>();
    observer = std::make_shared<RecordingObserver>();
    service.clearFaults();
    service.clearRequests();
  }
};

TEST_F(Hello, RefusedHelloEndsWithTheWrongReason) {
  struct Case {
    local::Fault fault;
    int code;
    std::string message;
  };
  const auto reply = [](int status, std::string body) {
    return local::Fault{.reply = local::FaultReply{.status = status, .body = std::move(body)}};
  };
  const std::string call = "GET /api/driver/hello -> ";
  const Case cases[] = {
      {reply(401, "who?"), 3, "token rejected: " + call + "401: who?"},
      {reply(426, "old"), 6, call + "426: old\n" + kHint},
      {reply(500, std::string(1000, 'e')), 1, call + "500: " + std::string(300, 'e')},
      {reply(200, "[]"), 1, call + "JSONDecodeError: body is not an object"},
      {reply(302, ""), 1, "ValueError: invalid literal for int(): None"},
      {reply(204, ""), 1, "ValueError: invalid literal for int(): None"},
      {reply(200, R"({"protocol":"two"})"), 1, "ValueError: invalid literal for int(): two"},
      {reply(200, R"({"protocol":null})"), 1, "ValueError: invalid literal for int(): None"},
      {reply(200, R"({"protocol":3})"), 6,
       std::string("server speaks driver protocol 3, this driver speaks 2 — ") + kHint},
      {reply(200, R"({"protocol":"2"})"), 0, ""},
      {reply(200, R"({"protocol":2.9})"), 1, "ValueError: invalid literal for int(): 2.9"},
  };
  for (auto row : cases) {
    SCOPED_TRACE(row.message);
    forget();
    row.fault.endpoint = "hello";
    service.addFault(row.fault);
    const auto reason = run();
    EXPECT_EQ(reason.code(), row.code);
    EXPECT_EQ(reason.message(), row.message);
    EXPECT_EQ(service.requestCount(), 1u);
    EXPECT_EQ(observer->events().empty(), row.code != 0);
  }
}

TEST_F(Hello, UnreachableServerIsNotNamed) {
  service.stop();
  const auto reason = run();
  EXPECT_EQ(reason.code(), 1);
  EXPECT_THAT(reason.message(), StartsWith("GET /api/driver/hello -> URLError: "));
  service.start();
  service.addFault({.endpoint = "hello", .delivery = local::Delivery::garbage});
  EXPECT_THAT(run().message(), StartsWith("GET /api/driver/hello -> URLError: "));
}

TEST_F(Hello, BadConfigurationReachesTheServer) {
  const std::string envFile = path("driver.env");
  const auto expect = [&](auto change, int code, const std::string& message) {
    SCOPED_TRACE(message);
    const DriverConfig good = config;
    change(config);
    const auto reason = run();
    config = good;
    EXPECT_EQ(reason.code(), code);
    EXPECT_EQ(reason.message(), message);
  };
  expect([](DriverConfig& c) { c.token = ""; }, 2,
         "no driver token: export VERDO_DRIVER_TOKEN=..., or put VERDO_DRIVER_TOKEN=... in " +
             envFile + " (chmod 600). Issue one in the UI.");
  expect([](DriverConfig& c) { c.server = "http://10.0.0.1:80/x"; }, 2,
         "http://10.0.0.1:80/x is plain http off loopback — the token would travel in clear; use "
         "https:// or pass --insecure on a trusted network");
  expect([](DriverConfig& c) { c.execCommand = "no-such-browser nodejs"; }, 127,
         "executor not found: no-such-browser");
  expect([](DriverConfig& c) { c.execCommand = "  "; }, 127, "executor not found: (empty)");
  expect([](DriverConfig& c) { c.execCommand = "''"; }, 127, "executor not found: (empty)");
  expect([](DriverConfig& c) { c.execCommand = "ego 'nodejs"; }, 127,
         "executor command `ego 'nodejs` cannot be split: No closing quotation");
  expect([&](DriverConfig& c) { c.caCertPath = path("none.pem"); }, 2,
         "OSError: [Errno 2] No such file or directory: '" + path("none.pem") + "'");
  std::ofstream(path("empty.pem")) << "no certificate here\n";
  expect([&](DriverConfig& c) { c.caCertPath = path("empty.pem"); }, 2,
         "SSLError: no certificate in " + path("empty.pem"));
  expect(
      [](DriverConfig& c) { c.checkLLM = true; }, 2,
      "--check-llm: no LLM key — export VERDO_LLM_API_KEY=..., or put VERDO_LLM_API_KEY=... in " +
          envFile + " (chmod 600). Issue one in the UI.");
  // Only the last case may have asked.
  EXPECT_EQ(service.requestCount(), 1u);
}

TEST_F(Hello, DryRunServesOrSweeps) {
  setSpaces({"u1-a"});
  addJob("say a");
  EXPECT_EQ(run(), ExitReason::clean());
  EXPECT_EQ(service.requestCount(), 1u);
  EXPECT_THAT(closedSpaces(), IsEmpty());
  EXPECT_EQ(log->lines().back(), (RecordingLog::Line{'w', "dry run — not serving jobs"}));
  EXPECT_THAT(observer->events(), ElementsAre("connected local 1 2026.09.04"));
}

TEST_F(Hello, OddValuesOfTheServerStopTheDriver) {
  struct Case {
    ordered_json patch;
    std::string connected;
    std::string event;
  };
  const Case cases[] = {
      {{{"user", nullptr}, {"driver_version", nullptr}},
       "? (user ?) · driver v?",
       "connected ? 0 ?"},
      {{{"user", "root"}}, "? (user ?) · driver v2026.09.04", "connected ? 0 2026.09.04"},
      {{{"user", {{"username", 7}, {"id", "12"}}}, {"driver_version", 1.5}},
       "7 (user 12) · driver v1.5",
       "connected 7 12 1.5"},
      {{{"user", {{"username", true}, {"id", "x"}}}},
       "True (user x) · driver v2026.09.04",
       "connected True 0 2026.09.04"},
  };
  const auto plain = service.hello();
  for (const auto& row : cases) {
    SCOPED_TRACE(row.connected);
    forget();
    service.setHello(plain);
    service.patchHello(row.patch);
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_THAT(texts('s'), ElementsAre(row.connected));
    EXPECT_THAT(observer->events(), ElementsAre(row.event));
  }
}

TEST_F(Hello, NumberOfLanesIsReadWrongly) {
  struct Case {
    ordered_json offered;
    std::optional<int> configured;
    int lanes;
  };
  const Case cases[] = {
      {5, {}, 5}, {"7", {}, 7},  {nullptr, {}, 3}, {"many", {}, 3},
      {0, {}, 1}, {-4, {}, 1},   {2.9, {}, 3},     {5, 2, 2},
      {5, 0, 5},  {true, {}, 3}, {1e300, {}, 3},   {ordered_json::array(), {}, 3},
  };
  config.dryRun = false;
  for (const auto& row : cases) {
    SCOPED_TRACE(row.offered.dump());
    forget();
    service.patchHello({{"max_jobs", row.offered}});
    config.maxJobs = row.configured;
    start();
    EXPECT_TRUE(log->waitFor("serving up to "));
    EXPECT_TRUE(service.waitForRequest("poll", 1, kLong));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_THAT(texts('i'), Contains("serving up to " + std::to_string(row.lanes) +
                                     " job(s) at once — ctrl-c to stop"));
  }
}

TEST_F(Hello, UnusableSpacePatternStopsTheDriverOrClosesForeignSpaces) {
  config.dryRun = false;
  for (const char* pattern : {"(", "[a", "*", "(?<n>x)(?<n>y)"}) {
    SCOPED_TRACE(pattern);
    forget();
    setSpaces({"mine", "u1-a"});
    service.patchHello({{"space_pattern", pattern}});
    start();
    EXPECT_TRUE(service.waitForRequest("poll", 1, kLong));
    EXPECT_THAT(spaces(), ElementsAre("mine"));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_THAT(texts('w'), Contains(StartsWith("space_pattern of the server is unusable (")));
  }
}

TEST_F(Hello, LlmKeyItselfReachesTheServer) {
  config.llmKey = "sk-provider-key-7890";
  config.llmBase = "https://provider.example/base//";
  config.clientHeader = "tests/1";
  EXPECT_EQ(run(), ExitReason::clean());
  const auto request = service.requests("hello").at(0);
  EXPECT_EQ(request.header("X-VERDO-Driver-LLM"),
            R"({"present": true, "last4": "7890", "base_url": "https://provider.example/base"})");
  EXPECT_EQ(request.header("X-VERDO-Driver-Client"), "tests/1");
  for (const auto& [name, value] : request.headers)
    EXPECT_THAT(value, Not(HasSubstr("provider-key")));
  EXPECT_THAT(texts('w'), Not(Contains(HasSubstr("llm key"))));
}

}  // namespace
}  // namespace verdo::test
