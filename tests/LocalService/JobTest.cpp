#include "LocalService/LocalService.h"
#include "LocalService/Sha256.h"
#include "tests/LocalService/RawClient.h"

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace verdo::local::test {
namespace {

using namespace std::chrono_literals;

class Jobs : public testing::Test {
 protected:
  Jobs() { service.start(); }
  LocalService service;
};

TEST_F(Jobs, ManyDriversNeverGetTheSameJobOrLaneTwiceAtOnce) {
  constexpr int jobCount = 300;
  for (int i = 0; i < jobCount; ++i) {
    // Three lanes that are fought over, and jobs with a lane of their own.
    service.addJob({.label = i % 2 == 0 ? "lane" + std::to_string(i % 3) : ""});
  }
  std::mutex mutex;
  std::multiset<std::string> lanes;
  std::map<std::int64_t, int> times;
  std::atomic<int> clashes = 0;
  std::vector<std::thread> drivers;
  drivers.reserve(8);
  for (int i = 0; i < 8; ++i) {
    drivers.emplace_back([&] {
      Driver driver(service);
      while (!service.waitForAllDone(0ms)) {
        const auto id = driver.lease(1);
        if (id == 0) continue;
        const auto lane = service.job(id)->lane;
        {
          const std::lock_guard lock(mutex);
          lanes.insert(lane);
          ++times[id];
          if (lanes.count(lane) > 1) ++clashes;
        }
        driver.lines(id);
        {
          const std::lock_guard lock(mutex);
          lanes.erase(lane);
        }
        driver.complete(id);
      }
    });
  }
  for (auto& driver : drivers) driver.join();
  EXPECT_EQ(clashes, 0);
  EXPECT_EQ(times.size(), jobCount);
  for (const auto& [id, count] : times) EXPECT_EQ(count, 1) << "job " << id;
}

TEST_F(Jobs, SilentDriverLosesItsJobAndAnotherGetsIt) {
  service.setLease(60ms);
  const auto id = service.addJob({.label = "mail"});
  Driver first(service);
  ASSERT_EQ(first.lease(), id);
  Driver second(service);
  ASSERT_EQ(second.lease(5), id);
  EXPECT_EQ(service.job(id)->timesLeased, 2u);

  service.setLease(10s);
  EXPECT_EQ(second.lines(id).json(), R"({"ok":true,"cancel":false,"state":"running"})"_json);
  second.complete(id, R"({"exit_code":4,"error":"bad"})");
  // The completion record of the one that lost it changes nothing.
  EXPECT_EQ(first.complete(id).json()["ok"], false);
  const auto job = *service.job(id);
  EXPECT_EQ(job.exitCode, 4);
  EXPECT_EQ(job.error, "bad");
  EXPECT_EQ(job.completePosts, 2u);
}

TEST_F(Jobs, HeartbeatsKeepALease) {
  service.setLease(300ms);
  const auto id = service.addJob();
  Driver driver(service);
  ASSERT_EQ(driver.lease(), id);
  Driver other(service);
  for (int i = 0; i < 4; ++i) {
    EXPECT_FALSE(service.waitFor(
        id, [](const JobSnapshot& job) { return job.state == JobState::queued; }, 150ms));
    EXPECT_EQ(driver.lines(id).json()["ok"], true);
  }
  EXPECT_EQ(other.lease(), 0);
}

TEST_F(Jobs, PollThatItsClientLeftLosesNoJob) {
  for (int i = 0; i < 50; ++i) {
    Driver leaving(service);
    leaving.start("GET", "/api/driver/poll?wait=30");
    ASSERT_TRUE(service.waitForRequest("poll", service.requestCount("poll") + (i == 0), 5s));
    leaving.client().close();
    const auto id = service.addJob({.label = "lane" + std::to_string(i)});
    Driver staying(service);
    ASSERT_EQ(staying.lease(5), id);
    ASSERT_EQ(service.job(id)->timesLeased, 1u);
  }
  EXPECT_TRUE(service.waitForHangUps("poll", 50, 5s));
}

TEST_F(Jobs, WaitingPollsGetWhatTheyMayTakeAsSoonAsItIsThere) {
  Driver busyDriver(service);
  busyDriver.start("GET", "/api/driver/poll?wait=20&busy=a%2Cb");
  ASSERT_TRUE(service.waitForRequest("poll", 1, 5s));
  Driver freeDriver(service);
  freeDriver.start("GET", "/api/driver/poll?wait=20");
  ASSERT_TRUE(service.waitForRequest("poll", 2, 5s));

  const auto start = std::chrono::steady_clock::now();
  const auto a = service.addJob({.label = "a"});
  EXPECT_EQ(Driver::jobOf(freeDriver.finish()), a);
  const auto c = service.addJob({.label = "c"});
  EXPECT_EQ(Driver::jobOf(busyDriver.finish()), c);

  // A second job in a leased lane waits until the lane is free, whoever asks.
  const auto second = service.addJob({.label = "a"});
  EXPECT_EQ(freeDriver.lease(), 0);
  busyDriver.start("GET", "/api/driver/poll?wait=20");
  freeDriver.complete(a);
  EXPECT_EQ(Driver::jobOf(busyDriver.finish()), second);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(Jobs, CancelReachesTheDriverAndNobodyRunsTheJobAgain) {
  service.setLease(60ms);
  const auto queued = service.addJob();
  EXPECT_TRUE(service.cancelJob(queued));
  const auto born = service.addJob({.cancelled = true});
  const auto running = service.addJob();
  Driver driver(service);
  ASSERT_EQ(driver.lease(), born);
  EXPECT_EQ(driver.lines(born).json(), R"({"ok":true,"cancel":true,"state":"running"})"_json);
  ASSERT_EQ(driver.lease(), running);
  EXPECT_TRUE(service.cancelJob(running));
  EXPECT_EQ(driver.lines(running).json()["cancel"], true);
  // Dropped without a completion record, as a driver does when told at its acknowledgement.
  EXPECT_TRUE(service.waitForAllDone(5s));
  EXPECT_FALSE(service.job(born)->completed);
  EXPECT_FALSE(service.cancelJob(running));
  EXPECT_EQ(driver.lines(running).json(), R"({"ok":false,"cancel":true,"state":"done"})"_json);
}

TEST_F(Jobs, LinesAreCountedHashedAndStored) {
  struct Case {
    const char* what;
    std::vector<std::string> posts;
    std::vector<std::string> lines;
  };
  const std::vector<Case> cases = {
      {"nothing", {R"({"lines":[]})"}, {}},
      {"an empty line is a line", {R"({"lines":["",""]})"}, {"", ""}},
      {"several posts", {R"({"lines":["a"]})", R"({"lines":["b","c"]})"}, {"a", "b", "c"}},
      {"escapes", {R"({"lines":["\u00e9\ud83d\ude00\t\"\\"]})"}, {"é😀\t\"\\"}},
      {"other keys", {R"({"x":{"lines":["no"]},"lines":["yes"],"y":["no"]})"}, {"yes"}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    for (const bool keep : {true, false}) {
      const auto id = service.addJob({.keepLines = keep});
      Driver driver(service);
      ASSERT_EQ(driver.lease(), id);
      for (const auto& post : test.posts) EXPECT_EQ(driver.lines(id, post).status, 200);
      std::string all;
      for (const auto& line : test.lines) all += line + "\n";
      const auto job = *service.job(id);
      EXPECT_EQ(job.linesSha256, sha256Hex(all));
      EXPECT_EQ(job.lineCount, test.lines.size());
      EXPECT_EQ(job.lineBytes, all.size() - test.lines.size());
      EXPECT_EQ(job.linesPosts, test.posts.size());
      EXPECT_EQ(job.firstLine.has_value(), !test.lines.empty());
      EXPECT_EQ(service.lines(id), keep ? test.lines : std::vector<std::string>());
      driver.complete(id);
    }
  }
  // Against a value from elsewhere: printf 'a\nb\nc\n' | sha256sum
  EXPECT_EQ(sha256Hex("a\nb\nc\n"),
            "880553fca8fcea94e325ee2cfb48e5a985cc797f39a14cc6d3cedecfeb2ae4d2");
}

TEST_F(Jobs, WaitsSeeLinesAsTheyCome) {
  const auto id = service.addJob();
  Driver driver(service);
  ASSERT_EQ(driver.lease(), id);
  EXPECT_FALSE(service.waitForLine(id, "ready", 10ms));
  std::thread poster([&] { driver.lines(id, R"({"lines":["one","all ready"]})"); });
  EXPECT_TRUE(service.waitForLine(id, "ready", 5s));
  poster.join();
  EXPECT_THAT(service.lines(id, 1), testing::ElementsAre("all ready"));
  EXPECT_FALSE(service.waitFor(id + 1, JobState::done, 10ms)) << "there is no such job";
}

TEST_F(Jobs, JobObjectCarriesWhatWasAskedFor) {
  service.addJob(
      {.label = "mail",
       .kind = "llm",
       .payload = "text",
       .taskSpace = "u1-x",
       .files = {{.name = "a b.pdf", .content = "abc"},
                 {.name = "c", .sha256 = "00", .url = "http://elsewhere/", .redirect = {}},
                 {.name = "d", .omitUrl = true, .omitSha256 = true}},
       .extra = {{"job_id", "1"}, {"other", nullptr}}});
  const auto job = Driver(service).poll().json()["job"];
  EXPECT_EQ(job,
            (nlohmann::json{
                {"job_id", "1"},
                {"label", "mail"},
                {"kind", "llm"},
                {"payload", "text"},
                {"task_space", "u1-x"},
                {"other", nullptr},
                {"files",
                 {{{"name", "a b.pdf"},
                   {"url", "/files/1/a%20b.pdf"},
                   {"sha256", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"}},
                  {{"name", "c"}, {"url", "http://elsewhere/"}, {"sha256", "00"}},
                  {{"name", "d"}}}}}));
}

}  // namespace
}  // namespace verdo::local::test
