#include "tests/Support/DriverFixture.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/NoThreads.h"

#include <fstream>
#include <system_error>

#include <signal.h>
#include <unistd.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using testing::Contains;

constexpr double kSoon = 1.0;  // seconds; nothing that a stop waits for below ends before 10

class Stop : public DriverFixture {};

TEST_F(Stop, HelloIsWaitedFor) {
  service.outage(local::OutageKind::hang, 60s);
  start();
  ASSERT_TRUE(service.requests().waitFor("hello", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_TRUE(service.requests().waitForHangUps("hello", 1, kLong));
}

TEST_F(Stop, PollIsWaitedForOrRepeated) {
  start();
  ASSERT_TRUE(service.requests().waitFor("poll", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_TRUE(service.requests().waitForHangUps("poll", 1, kLong));
  EXPECT_EQ(service.requests().count("poll"), 1u);
  EXPECT_THAT(texts('w'), Not(Contains(testing::HasSubstr("poll failed"))));
}

TEST_F(Stop, HangingScriptHoldsUpAStop) {
  struct Case {
    const char* what;
    const char* script;  // that hangs
    bool sweepsFirst;
    double reapInterval;
  };
  const Case cases[] = {
      {"list of the first sweep", "list", true, 100},
      {"close of the first sweep", "close", true, 100},
      {"list of the reaper", "list", false, 0.01},
      {"close of the reaper", "close", false, 0.01},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    for (const char* name : {"spaces.hang", "spaces.hanging"}) std::remove(path(name).c_str());
    log = std::make_shared<RecordingLog>();
    setSpaces({"u1-a", "u1-b"});
    hangOn(row.script);
    config.noSweep = !row.sweepsFirst;
    config.idleClose = 0.001;
    config.reapInterval = row.reapInterval;
    start();
    ASSERT_TRUE(hangs());
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_LT(elapsed.count(), kSanitized ? 5 : 2);  // a script of ours has 45 s otherwise
    EXPECT_EQ(log->has("serving up to 3 job(s) at once — ctrl-c to stop"), !row.sweepsFirst);
  }
}

TEST_F(Stop, ExecutorThatHangsForAJobIsAskedAgain) {
  setSpaces({"u1-a", "u1-b"});
  for (const char* script : {"close", "list"}) hangOn(script);
  config.noSweep = true;
  timings.termination = TerminationTimings{};  // each hanging script costs a second
  const auto id = addJob("sleep 100", {.taskSpace = "u1-a"});
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSanitized ? 10 : 2.7);
}

TEST_F(Stop, CleanEndWaitsForTheReapersScript) {
  setSpaces({"u1-a"});
  hangOn("list");
  config.noSweep = true;
  config.reapInterval = 0.01;
  const auto id = addJob("wait '" + path("go") + "'");
  config.serveJobs = 1;
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  ASSERT_TRUE(hangs());
  std::ofstream(path("go")) << "";
  EXPECT_EQ(finish(10s), ExitReason::clean());
}

TEST_F(Stop, ServiceThatNeverAnswersHoldsUpAStop) {
  config.noSweep = true;
  const auto id = addJob("sleep 100");
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  service.outage(local::OutageKind::hang, 100s);
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSanitized ? 8 : 3);  // a post waits 45 s otherwise
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
  addJob("sleep 100", {.label = "b"});
  start();
  for (const auto id : {1, 2}) ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
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
  const auto id = addJob("sleep 100");
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  service.faults().add({.endpoint = "poll", .reply = FaultReply{.status = 500, .body = "no"}});
  addJob("say a");  // lets the poll in flight return
  EXPECT_EQ(finish(), ExitReason::serverUnreachable("runtime_error: bug"));
  EXPECT_EQ(service.jobs().find(id)->exitCode, -SIGTERM);
}

TEST_F(Stop, UnreachableServerHoldsUpAStopForLongerThanSaid) {
  const auto id = addJob("sleep 100");
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  service.stop();
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), 3);
  // Which post notices first depends on the moment of the stop.
  EXPECT_THAT(texts('e'), Contains(testing::ContainsRegex(
                              "job 1: (lost the server, killing the job|could not report)")));
}

}  // namespace
}  // namespace verdo::test
