#include "tests/Support/DriverFixture.h"

#include <fmt/format.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;

class ServeLoop : public DriverFixture {
 protected:
  void answerPoll(const std::string& body, std::uint64_t count = 1) {
    answerWith("poll", 200, body, count);
  }
};

TEST_F(ServeLoop, FailingPollsHammerTheServerOrComeTooLate) {
  answerWith("poll", 500, "x", 7);
  start();
  // 1, 2, 4, 8, 16, 30 and 30 units of 20 ms.
  const std::vector<double> pauses{20, 40, 80, 160, 320, 600, 600};
  ASSERT_TRUE(service.requests().waitFor("poll", 8, kLong));
  const auto seen = gaps("poll");
  for (std::size_t i = 0; i < pauses.size(); ++i) {
    EXPECT_GE(seen[i], pauses[i] - 2);
    EXPECT_LE(seen[i], pauses[i] + 1000);
  }
  std::vector<std::string> told{"connected local 1 2026.09.04"};
  for (const double pause : pauses) {
    told.push_back(fmt::format("retrying {} poll failed (GET /api/driver/poll?wait=25 -> 500: x)",
                               pause / 1000));
  }
  EXPECT_EQ(observer->events(), told);
  // After a success they begin anew, and nobody goes on saying that they fail.
  doneJob(addJob("say a"));
  EXPECT_EQ(observer->events().at(told.size()), "recovered");
  answerWith("poll", 500, "x", 1);
  addJob("say b");  // lets the poll in flight return
  EXPECT_TRUE(observer->waitFor("retrying 0.02", 2));
}

TEST_F(ServeLoop, LongWaitLooksLikeALoopThatHangs) {
  timings.aliveInterval = 10ms;
  const std::pair<const char*, std::function<void()>> waits[] = {
      {"a poll", [] {}},
      {"a pause after a failed one",
       [this] {
         timings.pollRetryFirst = 100s;
         answerWith("poll", 500);
       }},
      {"a lane", [this] { addJob(waitScript(), {.label = "only"}); }},
      {"the first sweep",
       [this] {
         config.noSweep = false;
         hangOn("list");
       }},
  };
  config.maxJobs = 1;
  config.noSweep = true;
  for (const auto& [name, prepare] : waits) {
    SCOPED_TRACE(name);
    forget();
    prepare();
    start();
    ASSERT_TRUE(observer->waitFor("connected"));
    const int before = observer->signsOfLife;
    EXPECT_TRUE(eventually([&] { return observer->signsOfLife >= before + 10; }, kLong));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  }
}

/// Never comes back from what it is told.
class StuckObserver : public RecordingObserver {
 public:
  void driverRetrying(const std::string& message, double seconds) override {
    RecordingObserver::driverRetrying(message, seconds);
    goOn.waitFor(20s);
  }
  Event goOn;
};

TEST_F(ServeLoop, LoopThatHangsLooksAlive) {
  timings.aliveInterval = 1ms;
  const auto stuck = std::make_shared<StuckObserver>();
  observer = stuck;
  answerWith("poll", 500);
  start();
  ASSERT_TRUE(observer->waitFor("retrying"));
  const int before = observer->signsOfLife;
  EXPECT_FALSE(eventually([&] { return observer->signsOfLife > before; }, 100ms));
  stuck->goOn.set();
}

TEST_F(ServeLoop, PollsThatComeBackAtOnceSpin) {
  timings.emptyPollPause = 50ms;
  timings.emptyPollQuick = 200ms;
  const std::pair<int, const char*> replies[] = {{204, ""},
                                                 {302, ""},
                                                 {200, ""},
                                                 {200, R"({"job":[1]})"},
                                                 {200, R"({"job":{"job_id":"4x2"}})"}};
  for (const auto& [status, body] : replies) {
    SCOPED_TRACE(body);
    forget();
    answerWith("poll", status, body);
    start();
    ASSERT_TRUE(service.requests().waitFor("poll", 6, kLong));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    const auto seen = gaps("poll");
    for (std::size_t i = 1; i < 5; ++i) EXPECT_GE(seen[i], 48) << i;
  }
}

TEST_F(ServeLoop, UnusableOrUnreadableJobStopsAllPolling) {
  timings.emptyPollPause = 50ms;
  const std::pair<std::string, std::string> defects[] = {
      {R"("payload":1e400)", "number out of range at position 28"},
      {"\"payload\":\"say \xff\"", "not UTF-8 at position 33"}};
  for (const auto& [member, defect] : defects) {
    answerPoll(R"({"job":{"label":1,)" + member + R"(,"job_id":9}})");
  }
  answerPoll(R"({"job":{"job_id":1.5,"payload":"say a"}})");
  answerPoll(R"({"job":{"job_id":"+10","kind":0,"label":17,"payload":"say \ud83d!"}})");
  config.serveJobs = 1;
  EXPECT_EQ(run(), ExitReason::clean());
  std::vector<std::string> refusals{"poll returned a job without a usable job_id — ignoring it"};
  for (const auto& [member, defect] : defects) {
    refusals.push_back("job 9: unreadable (" + defect + ") — refusing");
  }
  EXPECT_THAT(texts('w'), testing::IsSupersetOf(refusals));
  EXPECT_THAT(observer->events(), testing::Contains("started 10 17 run"));
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
  for (const auto id : {1, 2}) ASSERT_TRUE(hasPrinted(id));
  // Some heartbeats later there has still been no third poll.
  ASSERT_TRUE(waitForPosts(6));
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
  ASSERT_TRUE(waitForPosts(3));
  letGo();
  EXPECT_EQ(finish(), ExitReason::clean());
  EXPECT_EQ(service.jobs().find(1)->exitCode, 0);
  EXPECT_EQ(service.jobs().find(third)->timesLeased, 0u);
  EXPECT_EQ(service.requests().count("poll"), 2u);
}

TEST_F(ServeLoop, IdleRunNeverEndsOrEndsUnderAJob) {
  config.pollWait = 0;
  config.idleExit = 0.3;
  startJob(waitScript());
  ASSERT_TRUE(waitForPosts(8));
  letGo();
  EXPECT_EQ(doneJob(1).exitCode, 0);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(finish(), ExitReason::clean());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 150ms);
}

}  // namespace
}  // namespace verdo::test
