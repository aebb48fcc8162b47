#include "tests/Support/DriverFixture.h"

#include <fstream>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using testing::Contains;
using testing::ElementsAre;

class ServeLoop : public DriverFixture {
 protected:
  std::string waitScript() const { return "wait '" + path("go") + "'"; }
  void letGo() const { std::ofstream(path("go")) << ""; }
  void answerPoll(const std::string& body, std::uint64_t count = 1) {
    service.faults().add(
        {.endpoint = "poll", .count = count, .reply = FaultReply{.status = 200, .body = body}});
  }
};

TEST_F(ServeLoop, FailingPollsHammerTheServerOrComeTooLate) {
  service.faults().add(
      {.endpoint = "poll", .count = 7, .reply = FaultReply{.status = 500, .body = "x"}});
  start();
  // 1, 2, 4, 8, 16, 30 and 30 units of 20 ms.
  const std::vector<double> pauses{20, 40, 80, 160, 320, 600, 600};
  ASSERT_TRUE(service.requests().waitFor("poll", 8, kLong));
  const auto seen = gaps("poll");
  for (std::size_t i = 0; i < pauses.size(); ++i) {
    EXPECT_GE(seen[i], pauses[i] - 2);
    EXPECT_LE(seen[i], pauses[i] + 250);
  }
  const std::string message = "poll failed (GET /api/driver/poll?wait=25 -> 500: x)";
  EXPECT_THAT(observer->events(),
              ElementsAre("connected local 1 2026.09.04", "retrying 0.02 " + message,
                          "retrying 0.04 " + message, "retrying 0.08 " + message,
                          "retrying 0.16 " + message, "retrying 0.32 " + message,
                          "retrying 0.6 " + message, "retrying 0.6 " + message));
}

TEST_F(ServeLoop, PollsThatComeBackAtOnceSpin) {
  timings.emptyPollPause = 50ms;
  timings.emptyPollQuick = 200ms;
  for (const auto& reply :
       {FaultReply{.status = 204}, FaultReply{.status = 200},
        FaultReply{.status = 302, .headers = {{"Location", "/"}}},
        FaultReply{.status = 200, .body = "{}"}, FaultReply{.status = 200, .body = R"({"job":{}})"},
        FaultReply{.status = 200, .body = R"({"job":[1]})"},
        FaultReply{.status = 200, .body = R"({"job":{"job_id":"4x2"}})"}}) {
    SCOPED_TRACE(reply.body);
    service.reset();
    service.faults().add({.endpoint = "poll", .reply = reply});
    start();
    ASSERT_TRUE(service.requests().waitFor("poll", 6, kLong));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    const auto seen = gaps("poll");
    for (std::size_t i = 1; i < 5; ++i) EXPECT_GE(seen[i], 48) << i;
  }
}

TEST_F(ServeLoop, UnusableJobStopsTheLoop) {
  for (const char* id :
       {R"("4x2")", "null", "1.5", R"("")", "[1]", "123456789012345678901234567890", R"(" 1")"}) {
    answerPoll(std::string(R"({"job":{"job_id":)") + id + R"(,"payload":"say a"}})");
  }
  answerPoll(R"({"job":{"job_id":"+42","kind":0,"label":17}})");
  config.serveJobs = 1;
  EXPECT_EQ(run(), ExitReason::clean());
  EXPECT_THAT(texts('w'), testing::Contains("poll returned a job without a usable job_id — "
                                            "ignoring it")
                              .Times(7));
  EXPECT_THAT(observer->events(), Contains("started 42 17 run"));
}

TEST_F(ServeLoop, UnreadableJobStopsAllPolling) {
  timings.emptyPollPause = 50ms;
  const std::string deep = std::string(600, '[') + std::string(600, ']');
  const std::pair<std::string, std::string> defects[] = {
      {R"("payload":1e400)", "number out of range at position 28"},
      {R"("payload":)" + deep, "nested more than 512 levels deep"},
      {"\"payload\":\"say \xff\"", "not UTF-8 at position 33"}};
  for (const auto& [member, defect] : defects) {
    answerPoll(R"({"job":{"label":1,)" + member + R"(,"job_id":9}})");
  }
  answerPoll(R"({"job":{"job_id":10,"payload":"say \ud83d!"}})");
  config.serveJobs = 1;
  EXPECT_EQ(run(), ExitReason::clean());
  std::vector<std::string> refusals;
  for (const auto& [member, defect] : defects) {
    refusals.push_back("job 9: unreadable (" + defect + ") — refusing");
  }
  EXPECT_THAT(texts('w'), testing::IsSupersetOf(refusals));
  EXPECT_THAT(observer->events(), Contains("started 10 job-10 run"));
  EXPECT_GE(gaps("poll").at(1), 48) << "asked again and again without a pause";
}

TEST_F(ServeLoop, JobOfABusyLaneRunsOrIsNotRefused) {
  addJob(waitScript(), {.label = "mail, ä/~"});
  start();
  ASSERT_TRUE(service.requests().waitFor("poll", 2, kLong));
  EXPECT_EQ(service.requests().list("poll").at(1).target,
            "/api/driver/poll?wait=25&busy=mail%2C%20%C3%A4/~");
  answerPoll(R"({"job":{"job_id":77,"label":"mail, ä/~","payload":"say a"}})");
  const auto other = addJob("say b", {.label = "other"});  // lets the poll in flight return
  EXPECT_TRUE(log->waitFor("job 77: lane mail, ä/~ already busy here — refusing"));
  EXPECT_EQ(doneJob(other).exitCode, 0);
  letGo();
  EXPECT_EQ(doneJob(1).exitCode, 0);
  for (const auto& request : service.requests().list("lines")) EXPECT_NE(request.jobId, 77);
}

TEST_F(ServeLoop, MoreJobsRunThanThereAreLanes) {
  config.maxJobs = 2;
  addJob(waitScript(), {.label = "a"});
  addJob(waitScript(), {.label = "b"});
  addJob("say c", {.label = "c"});
  start();
  ASSERT_TRUE(service.jobs().waitForLine(1, "ready", kLong));
  ASSERT_TRUE(service.jobs().waitForLine(2, "ready", kLong));
  // Some heartbeats later there has still been no third poll.
  ASSERT_TRUE(
      service.requests().waitForReply("lines", service.requests().count("lines") + 6, kLong));
  EXPECT_EQ(service.requests().count("poll"), 2u);
  letGo();
  EXPECT_EQ(doneJob(3).exitCode, 0);
}

TEST_F(ServeLoop, RunEndsBeforeItsLastJobOrLeasesOneMore) {
  config.serveJobs = 2;
  addJob(waitScript(), {.label = "a"});
  addJob("say b", {.label = "b"});
  const auto third = addJob("say c", {.label = "c"});
  start();
  EXPECT_EQ(doneJob(2).exitCode, 0);
  ASSERT_TRUE(
      service.requests().waitForReply("lines", service.requests().count("lines") + 3, kLong));
  letGo();
  EXPECT_EQ(finish(), ExitReason::clean());
  EXPECT_EQ(service.jobs().find(1)->exitCode, 0);
  EXPECT_EQ(service.jobs().find(third)->timesLeased, 0u);
  EXPECT_EQ(service.requests().count("poll"), 2u);
}

TEST_F(ServeLoop, IdleRunNeverEndsOrEndsUnderAJob) {
  config.pollWait = 0;
  config.idleExit = 0.3;
  addJob(waitScript());
  start();
  ASSERT_TRUE(service.jobs().waitForLine(1, "ready", kLong));
  ASSERT_TRUE(
      service.requests().waitForReply("lines", service.requests().count("lines") + 8, kLong));
  letGo();
  EXPECT_EQ(doneJob(1).exitCode, 0);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(finish(), ExitReason::clean());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 150ms);
}

}  // namespace
}  // namespace verdo::test
