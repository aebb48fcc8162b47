#include "tests/Support/DriverFixture.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/NoThreads.h"

#include <system_error>

#include <signal.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;

constexpr double kSoon = 10;  // seconds; nothing that a stop must not wait for ends before 20

class Stop : public DriverFixture {
 protected:
  Stop() {
    timings.postDeadlineStopping = 200ms;
    timings.scriptStopping = 500ms;
  }
};

TEST_F(Stop, HelloIsWaitedFor) {
  service.outage(local::OutageKind::hang, 60s);
  start();
  ASSERT_TRUE(service.requests().waitFor("hello", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_TRUE(service.requests().waitForHangUps("hello", 1, kLong));
}

TEST_F(Stop, HangingScriptHoldsUpAStop) {
  const struct {
    const char* script;
    bool isReapers;  ///< or else the first sweep's
  } cases[] = {{"list", false}, {"close", false}, {"list", true}, {"close", true}};
  config.idleClose = 0.001;
  for (const auto& row : cases) {
    SCOPED_TRACE(testing::Message() << row.script << row.isReapers);
    forget();
    setSpaces({"u1-a", "u1-b"});
    hangOn(row.script);
    config.noSweep = row.isReapers;
    config.reapInterval = row.isReapers ? 0.01 : 100;
    start();
    ASSERT_TRUE(hangs());
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_LT(elapsed.count(), kSoon);  // a script of ours has 45 s otherwise
    EXPECT_EQ(log->has("serving up to 3 job(s) at once — ctrl-c to stop"), row.isReapers);
  }
}

TEST_F(Stop, ExecutorThatHangsForAJobIsAskedAgain) {
  setSpaces({"u1-a", "u1-b"});
  for (const char* script : {"close", "list"}) hangOn(script);
  config.noSweep = true;
  timings.termination.step = 3s;  // too long a grace, were it not cut
  const auto id = addJob("sleep 100", {.taskSpace = "u1-a"});
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_THAT(hanging(), testing::ElementsAre("close"));
}

TEST_F(Stop, CleanEndWaitsForTheReapersScript) {
  setSpaces({"u1-a"});
  hangOn("list");
  config.noSweep = true;
  config.reapInterval = 0.01;
  config.serveJobs = 1;
  startJob(waitScript());
  ASSERT_TRUE(hangs());
  letGo();
  EXPECT_EQ(finish(10s), ExitReason::clean());
}

TEST_F(Stop, ServiceThatNeverAnswersHoldsUpAStop) {
  config.noSweep = true;
  startJob("sleep 100");
  // Right after a reply the next post is still to come.
  ASSERT_TRUE(waitForPosts(1));
  service.outage(local::OutageKind::hang, 100s);
  ASSERT_TRUE(service.requests().waitFor("lines", service.requests().count("lines") + 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);  // a post waits 45 s otherwise
  EXPECT_TRUE(log->has("job 1: could not report completion"));
}

TEST_F(Stop, SecondSignalLeavesAScriptRunning) {
  hangOn("list");
  start();
  ASSERT_TRUE(hangs());
  runner->killJobsNow();
  EXPECT_TRUE(eventually([this] { return processesOf(home()).empty(); }));
}

TEST_F(Stop, WithoutAThreadToBeHadLeavesJobsRunning) {
  config.noSweep = true;
  addJob("sleep 100", {.label = "a"});
  startJob("sleep 100", {.label = "b"});
  ASSERT_TRUE(hasPrinted(1));
  {
    const NoThreads now;
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    runner->stop();
    EXPECT_TRUE(eventually([this] { return processesOf(home()).empty(); }));
  }
  EXPECT_EQ(finish(), ExitReason::stopped());
}

/// Breaks its contract, as a bug might: what is thrown must not leave jobs running.
class ThrowingObserver : public RecordingObserver {
  void driverRetrying(const std::string&, double) override { throw std::runtime_error("bug"); }
};

TEST_F(Stop, ExceptionInTheServeLoopLeavesJobsRunning) {
  observer = std::make_shared<ThrowingObserver>();
  const auto id = startJob("sleep 100");
  answerWith("poll", 500);
  addJob("say a");  // lets the poll in flight return
  EXPECT_EQ(finish(), ExitReason::serverUnreachable("runtime_error: bug"));
  EXPECT_EQ(service.jobs().find(id)->exitCode, -SIGTERM);
}

}  // namespace
}  // namespace verdo::test
