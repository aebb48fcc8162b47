#include "LocalService/LocalService.h"
#include "tests/LocalService/RawClient.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace verdo::local::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = testing::TempDir() + "local-service-XXXXXX";
    path_ = ::mkdtemp(name.data());
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

class Control : public testing::Test {
 protected:
  Control() : service({.filesDirectory = folder.path()}) {
    service.start();
    std::ofstream(folder.path() / "shared.txt") << "shared";
  }

  Seen call(const std::string& method, const std::string& path, const json& body = nullptr,
            const std::string& headers = "") {
    const auto text = body.is_null() ? "" : body.dump();
    RawClient client(service.port());
    client.send(method + " /control/" + path + " HTTP/1.1\r\n" + headers +
                "Content-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text);
    return client.receive();
  }

  TemporaryFolder folder;
  LocalService service;
};

TEST_F(Control, JobIsQueuedFollowedAndFinished) {
  const auto id = call("POST", "jobs",
                       {{"label", "mail"},
                        {"odd", {1, 2}},
                        {"files",
                         {{{"name", "a"}, {"content_base64", "aGk="}},
                          {{"name", "b"}, {"path", "shared.txt"}}}}})
                      .json()["id"];
  ASSERT_EQ(id, 1);
  EXPECT_EQ(call("GET", "jobs/1/wait?for=leased&timeout=0").json()["reached"], false);
  Driver driver(service);
  const auto job = driver.poll().json()["job"];
  EXPECT_EQ(job["odd"], (json{1, 2}));
  EXPECT_EQ(job["kind"], "run");
  EXPECT_EQ(driver.call("GET", job["files"][0]["url"]).body, "hi");
  EXPECT_EQ(driver.call("GET", job["files"][1]["url"]).body, "shared");
  EXPECT_EQ(call("GET", "jobs/1/wait?for=leased&timeout=5").json()["reached"], true);
  driver.lines(1, R"({"lines":["one","two"]})");
  EXPECT_EQ(call("GET", "jobs/1/lines?from=1&wait=5").json(),
            (json{{"from", 1}, {"next", 2}, {"lines", {"two"}}, {"state", "leased"}}));
  EXPECT_EQ(call("POST", "jobs/1/cancel").json()["cancelled"], true);
  driver.complete(1, R"({"exit_code":-15,"error":"stopped"})");
  const auto done = call("GET", "jobs/1/wait?timeout=5").json();
  EXPECT_EQ(done["reached"], true);
  EXPECT_EQ(done["job"]["state"], "done");
  EXPECT_EQ(done["job"]["exit_code"], -15);
  EXPECT_EQ(done["job"]["error"], "stopped");
  EXPECT_EQ(done["job"]["cancelled"], true);
  EXPECT_GE(done["job"]["finished_ms"], done["job"]["leased_ms"]);
  EXPECT_EQ(call("GET", "jobs").json()["jobs"].size(), 1u);

  const auto log = call("GET", "requests?endpoint=lines").json();
  EXPECT_EQ(log["count"], 1);
  EXPECT_THAT(log.dump(), testing::Not(HasSubstr(service.token())));
}

TEST_F(Control, FaultsOutageHelloAndTokenAreSet) {
  EXPECT_EQ(call("POST", "faults",
                 {{"endpoint", "hello"}, {"status", 418}, {"body", {{"a", 1}}}, {"count", 1}})
                .json()["id"],
            1);
  EXPECT_EQ(Driver(service).hello().body, R"({"a":1})");
  EXPECT_EQ(call("GET", "faults").json()["faults"][0]["hits"], 1);
  EXPECT_EQ(call("DELETE", "faults/1").status, 200);
  EXPECT_EQ(call("DELETE", "faults/1").status, 404);

  EXPECT_EQ(call("PATCH", "hello", {{"max_jobs", 9}}).json()["max_jobs"], 9);
  EXPECT_EQ(Driver(service).hello().json()["max_jobs"], 9);

  EXPECT_EQ(call("POST", "token", {{"token", nullptr}}).status, 200);
  EXPECT_EQ(Driver(service).hello().status, 401);
  EXPECT_EQ(call("POST", "token", {{"token", "fresh"}}).status, 200);
  EXPECT_EQ(Driver(service.port(), "fresh").hello().status, 200);

  EXPECT_EQ(call("POST", "outage", {{"kind", "refuse"}, {"seconds", 60}}).status, 200);
  ASSERT_TRUE(service.waitForConnections(0, 5s));
  EXPECT_EQ(RawClient(service.port()).connectError(), ECONNREFUSED);
  service.endOutage();
  EXPECT_EQ(call("POST", "reset").status, 200);
  EXPECT_EQ(call("GET", "status").json()["requests"], 0);
}

TEST_F(Control, BadInputIsExplained) {
  struct Case {
    const char* method;
    const char* path;
    json body;
    int status;
    const char* says;
  };
  const std::vector<Case> cases = {
      {"POST", "jobs", json::array(), 400, "object"},
      {"POST", "jobs", {{"files", {{{"content", "x"}}}}}, 400, "name"},
      {"POST", "jobs", {{"files", {{{"name", "x"}, {"contents", "x"}}}}}, 400, "contents"},
      {"POST", "jobs", {{"files", {{{"name", "x"}, {"path", "../etc/passwd"}}}}}, 400, "--files"},
      {"POST", "jobs", {{"files", {{{"name", "x"}, {"path", "/etc/passwd"}}}}}, 400, "--files"},
      {"POST", "jobs", {{"files", {{{"name", "x"}, {"content_base64", "a"}}}}}, 400, "base64"},
      {"GET", "jobs/5", nullptr, 404, "no job 5"},
      {"GET", "jobs/x", nullptr, 400, "integer"},
      {"POST", "faults", {{"endpoints", "hello"}}, 400, "endpoints"},
      {"POST", "faults", {{"delivery", "never"}}, 400, "never"},
      {"POST", "faults", {{"count", -1}}, 400, "count"},
      {"POST", "faults", {{"probability", 2}}, 400, "probability"},
      {"POST", "faults", {{"status", 99}}, 400, "status"},
      {"POST", "outage", {{"kind", "refuse"}}, 400, "seconds"},
      {"POST", "outage", {{"kind", "odd"}, {"seconds", 1}}, 400, "kind"},
      {"POST", "token", json::object(), 400, "token"},
      {"POST", "token", nullptr, 400, "JSON"},
      {"DELETE", "jobs", nullptr, 404, "README"},
      {"GET", "nothing", nullptr, 404, "README"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(std::string(test.method) + " " + test.path + " " + test.body.dump());
    const auto seen = call(test.method, test.path, test.body);
    EXPECT_EQ(seen.status, test.status);
    EXPECT_THAT(seen.json().value("error", ""), HasSubstr(test.says));
  }
  EXPECT_EQ(call("GET", "jobs", nullptr, "Origin: http://example.org\r\n").status, 403);
}

}  // namespace
}  // namespace verdo::local::test
