#include "LocalService/LocalService.h"
#include "LocalService/RequestLog.h"
#include "tests/LocalService/RawClient.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace verdo::local::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class Protocol : public testing::Test {
 protected:
  Protocol() { service.start(); }

  Seen raw(const std::string& bytes) {
    RawClient client(service.port());
    client.send(bytes);
    return client.receive();
  }

  LocalService service;
};

TEST_F(Protocol, BadInputIsAnsweredAndTheServiceGoesOn) {
  struct Case {
    const char* method;
    std::string target;
    std::string body;
    int status;
    const char* says;
  };
  const std::string lines = "/api/driver/jobs/1/lines";
  const std::string complete = "/api/driver/jobs/1/complete";
  const std::string deep(200'000, '[');
  const std::vector<Case> cases = {
      {"POST", lines, "", 400, "not valid JSON"},
      {"POST", lines, "{", 400, "not valid JSON"},
      {"POST", lines, "[]", 400, "lines"},
      {"POST", lines, "{}", 400, "lines"},
      {"POST", lines, "7", 400, "lines"},
      {"POST", lines, R"({"lines":"a"})", 400, "lines"},
      {"POST", lines, R"({"lines":[1]})", 400, "lines"},
      {"POST", lines, R"({"lines":[["a"]]})", 400, "lines"},
      {"POST", lines, R"({"lines":["a"],"lines":["b"]})", 400, "lines"},
      {"POST", lines, R"({"lines":["a"]} x)", 400, "not valid JSON"},
      {"POST", lines, "{\"lines\":[\"\xff\"]}", 400, "UTF-8"},
      {"POST", lines, "{\"x\":" + deep, 400, "not valid JSON"},
      {"POST", "/api/driver/jobs/x/lines", R"({"lines":[]})", 400, "integer"},
      {"POST", "/api/driver/jobs/99999999999999999999/lines", R"({"lines":[]})", 400, "integer"},
      {"POST", complete, "", 400, "not valid JSON"},
      {"POST", complete, "[]", 400, "exit_code"},
      {"POST", complete, R"({"error":null})", 400, "exit_code"},
      {"POST", complete, R"({"exit_code":"0"})", 400, "exit_code"},
      {"POST", complete, R"({"exit_code":1.5})", 400, "exit_code"},
      {"POST", complete, R"({"exit_code":0,"error":3})", 400, "error"},
      {"POST", complete, deep, 400, "deep"},
      {"GET", "/api/driver/poll?wait=x", "", 400, "wait"},
      {"GET", "/api/driver/poll?wait=-1", "", 400, "wait"},
      {"GET", "/api/driver/poll?wait=nan", "", 400, "wait"},
      {"GET", "/api/driver/nothing", "", 404, "nothing"},
      {"GET", lines, "", 404, "lines"},
      {"DELETE", "/", "", 404, "DELETE"},
      {"GET", "/files/../etc/passwd", "", 404, "no file"},
      {"GET", "/" + std::string(8000, 'a'), "", 404, "no"},
  };
  service.addJob();
  Driver driver(service);
  ASSERT_EQ(driver.lease(), 1);
  for (const auto& test : cases) {
    SCOPED_TRACE(std::string(test.method) + " " + test.target.substr(0, 60) + " " +
                 test.body.substr(0, 40));
    const auto seen = driver.call(test.method, test.target, test.body);
    EXPECT_EQ(seen.status, test.status);
    ASSERT_TRUE(seen.json().is_object()) << seen.body;
    EXPECT_THAT(seen.json().value("error", ""), HasSubstr(test.says));
  }
  EXPECT_EQ(service.acceptedConnections(), 1u) << "bad bodies do not cost the connection";
  EXPECT_EQ(service.job(1)->lineCount, 0u);
  EXPECT_FALSE(service.job(1)->completed);

  for (const auto& bytes : {std::string("\x16\x03\x01 hello\r\n\r\n"), std::string("GET /\r\n\r\n"),
                            "GET /" + std::string(100'000, 'a') + " HTTP/1.1\r\n\r\n"}) {
    EXPECT_GE(raw(bytes).status, 400);
  }
  EXPECT_EQ(driver.hello().status, 200);
}

TEST_F(Protocol, TokenAndProtocolAreAskedFor) {
  const std::string good = "Authorization: Bearer " + service.token() + "\r\n";
  const std::string two = "X-VERDO-Driver-Protocol: 2\r\n";
  struct Case {
    std::string headers;
    int status;
  };
  const std::vector<Case> cases = {
      {good + two, 200},
      {two, 401},
      {"Authorization: Bearer wrong\r\n" + two, 401},
      {"Authorization: " + service.token() + "\r\n" + two, 401},
      {good, 426},
      {good + "X-VERDO-Driver-Protocol: 3\r\n", 426},
  };
  for (const auto& test : cases) {
    for (const char* request : {"GET /api/driver/hello", "GET /api/driver/poll?wait=0"}) {
      const auto seen = raw(std::string(request) + " HTTP/1.1\r\n" + test.headers + "\r\n");
      if (test.status == 200) {
        EXPECT_LT(seen.status, 300);
      } else {
        EXPECT_EQ(seen.status, test.status) << test.headers;
        EXPECT_TRUE(seen.json().contains("error"));
      }
    }
  }
  Driver driver(service);
  service.revokeToken();
  EXPECT_EQ(driver.hello().status, 401);
  service.setToken("new");
  EXPECT_EQ(driver.hello().status, 401);
  EXPECT_EQ(Driver(service).hello().status, 200);
}

TEST_F(Protocol, AnswersForJobsThatAreNotRunning) {
  const auto queued = service.addJob();
  Driver driver(service);
  EXPECT_EQ(driver.lines(queued).json(), R"({"ok":false,"cancel":false,"state":"queued"})"_json);
  EXPECT_EQ(driver.lines(99).json(), R"({"ok":false,"cancel":false,"state":"unknown"})"_json);
  EXPECT_EQ(driver.complete(99).json()["ok"], false);
  EXPECT_EQ(service.job(queued)->lineCount, 0u);
}

TEST_F(Protocol, RequestsAreLoggedAsTheyCame) {
  const auto seen =
      raw("GET /api/driver/poll?wait=0&busy=a%2Cb HTTP/1.1\r\nhost: h\r\nZ: 1\r\n"
          "a:  spaced \r\nZ: 2\r\n\r\n");
  EXPECT_EQ(seen.status, 401);
  const auto requests = service.requests("poll");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].target, "/api/driver/poll?wait=0&busy=a%2Cb");
  EXPECT_THAT(requests[0].headers,
              ElementsAre(Pair("host", "h"), Pair("Z", "1"), Pair("a", "spaced"), Pair("Z", "2")));
  EXPECT_EQ(requests[0].header("HOST"), "h");
  EXPECT_EQ(requests[0].header("none"), std::nullopt);
  EXPECT_EQ(requests[0].status, 401);
  EXPECT_TRUE(requests[0].replied);

  const std::string big(3 << 20, 'x');
  Driver driver(service);
  driver.lines(1, R"({"lines":[")" + big + R"("]})");
  const auto lines = service.requests("lines");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].body.size(), 1u << 20);
  EXPECT_EQ(lines[0].bodySize, big.size() + 14);
}

TEST(RequestLogLimit, OldestGoFirstAndCountsStay) {
  RequestLog log({.entries = 3, .bodyBytes = 100, .totalBodyBytes = 50});
  for (int i = 1; i <= 5; ++i) {
    RequestRecord record;
    record.endpoint = i % 2 == 0 ? "even" : "odd";
    log.arrived(record, std::string(20, 'b'));
  }
  const auto kept = log.requests("");
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(kept[0].sequence, 3u);
  EXPECT_EQ(kept[0].body.size(), 0u) << "60 bytes of bodies are more than 50";
  EXPECT_EQ(kept[1].body.size(), 20u);
  EXPECT_EQ(log.count("odd"), 3u);
  const auto soon = std::chrono::steady_clock::now();
  EXPECT_EQ(log.waitForRequest("odd", 3, soon)->sequence, 5u);
  EXPECT_FALSE(log.waitForRequest("odd", 1, soon)) << "no longer kept";
  EXPECT_FALSE(log.waitForRequest("odd", 4, soon));
}

TEST_F(Protocol, FilesAreHandedOutWithoutAToken) {
  const std::string big(1 << 20, 'f');
  service.addJob({.files = {{.name = "plain.bin", .content = big},
                            {.name = "moved", .redirect = "http://127.0.0.1:1/x"},
                            {.name = "short", .content = "abcdef", .truncateAfter = 2},
                            {.name = "gone", .content = "no", .status = 410},
                            {.name = "ä/b?", .content = "odd"}}});
  const auto files = Driver(service).poll().json()["job"]["files"];
  const auto get = [&](std::size_t i) {
    return raw("GET " + files[i]["url"].get<std::string>() + " HTTP/1.1\r\n\r\n");
  };
  EXPECT_EQ(get(0).body, big);
  const auto moved = get(1);
  EXPECT_EQ(moved.status, 302);
  EXPECT_THAT(moved.head, HasSubstr("Location: http://127.0.0.1:1/x\r\n"));
  const auto cut = get(2);
  EXPECT_EQ(cut.end, Seen::End::closed);
  EXPECT_EQ(cut.body, "ab");
  EXPECT_EQ(get(3).status, 410);
  EXPECT_EQ(get(4).body, "odd");
  EXPECT_EQ(raw("GET " + service.addFile({.name = "x", .content = "y"}) + " HTTP/1.1\r\n\r\n").body,
            "y");
  EXPECT_EQ(service.requestCount("files"), 6u);
}

TEST_F(Protocol, HelloCanBeReplaced) {
  Driver driver(service);
  EXPECT_EQ(driver.hello().json()["max_jobs"], 3);
  service.patchHello({{"max_jobs", 7}, {"user", nullptr}});
  EXPECT_EQ(driver.hello().json()["max_jobs"], 7);
  EXPECT_FALSE(driver.hello().json().contains("user"));
  service.setHello("text");
  EXPECT_EQ(driver.hello().body, "\"text\"");
}

}  // namespace
}  // namespace verdo::local::test
