#include "tests/Support/DriverFixture.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Misbehaviour.h"

#include <ctime>

#include <signal.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;

class Kill : public DriverFixture {};

TEST_F(Kill, CancelledJobKeepsAProcessOrNeverEnds) {
  const std::pair<const char*, int> cases[] = {
      {"sleep 100", -SIGTERM},
      {"deaf", -SIGKILL},
      {"grandchild deaf", -SIGTERM},
      // The child has ended, and somebody of its group keeps its output open.
      {"leave sleep 100", 0},
      {"leave deaf", 0},
      {"flood 100000000000", -SIGTERM},
  };
  for (const auto& [script, exit] : cases) {
    SCOPED_TRACE(script);
    forget();
    const auto id = startJob(script, {.keepLines = false});
    EXPECT_TRUE(service.jobs().cancel(id));
    const auto job = doneJob(id);
    EXPECT_EQ(job.exitCode, exit);
    EXPECT_EQ(job.error, std::nullopt);
    const std::string prefix = "job " + std::to_string(id) + ": ";
    EXPECT_TRUE(
        log->waitFor(prefix + "finished with exit " + std::to_string(exit) + " (cancelled)"));
    EXPECT_THAT(texts('w'), Contains(prefix + "cancel requested — killing the browser process"));
    // Cancellation does not change the level.
    EXPECT_EQ(log->lines().back().level, exit == 0 ? 's' : 'w');
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_TRUE(eventually([&] { return processesOf(home()).empty(); }));
  }
}

TEST_F(Kill, DescendantInASessionOfItsOwnHangsTheJob) {
  for (const char* script : {"leave session sleep 100", "leave session flood 100000000000"}) {
    SCOPED_TRACE(script);
    const auto id = startJob(script, {.keepLines = false});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(service.jobs().cancel(id));
    EXPECT_EQ(doneJob(id).exitCode, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSanitized ? 20s : 5s);
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    // It left the group on purpose, which is beyond the driver's reach.
    for (const pid_t pid : processesOf(home())) ::kill(pid, SIGKILL);
  }
}

TEST_F(Kill, JobWhoseChildHasEndedIsCutOffFromADescendantsOutput) {
  config.serveJobs = 1;
  const auto id = addJob("leave flood 5000");
  EXPECT_EQ(run(), ExitReason::clean());
  EXPECT_EQ(service.jobs().lines(id).size(), 51u);
  EXPECT_EQ(service.jobs().find(id)->exitCode, 0);
}

TEST_F(Kill, StopLeavesAJobUnreportedOrItsSpaceOpen) {
  setSpaces({"u1-a", "u1-b", "u1-other", "mine"});
  addJob("deaf", {.label = "a", .taskSpace = "u1-a"});
  addJob("grandchild deaf", {.label = "b", .taskSpace = "mine"});
  addJob("flood 100000000000", {.label = "c", .keepLines = false});
  config.noSweep = true;
  start();
  for (const auto id : {1, 2, 3}) ASSERT_TRUE(hasPrinted(id));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), 5);

  EXPECT_EQ(service.jobs().find(1)->exitCode, -SIGKILL);
  EXPECT_EQ(service.jobs().find(2)->exitCode, -SIGTERM);
  EXPECT_EQ(service.jobs().find(3)->exitCode, -SIGTERM);
  // The spaces of the jobs, and then whatever else is the driver's own.
  EXPECT_THAT(closedSpaces(), testing::UnorderedElementsAre("u1-a", "mine", "u1-b", "u1-other"));
  EXPECT_THAT(spaces(), testing::IsEmpty());
  EXPECT_THAT(texts('i'), Contains("closed 2 leftover task space(s): u1-b, u1-other"));
  EXPECT_THAT(texts('w'), Contains("stopping — killing jobs and closing their tabs"));
  EXPECT_THAT(texts('w'), testing::Not(Contains(testing::HasSubstr("cancel requested"))));
  EXPECT_TRUE(observer->waitFor("lanes []"));

  // A job's space is closed before its end is reported: the service may hand out its like at once.
  std::vector<std::string> order;
  for (const auto& line : log->lines()) {
    if (line.text.starts_with("space 'u1-a'") || line.text.starts_with("job 1: finished")) {
      order.push_back(line.text);
    }
  }
  EXPECT_THAT(order, ElementsAre("space 'u1-a': close -> exit 0",
                                 "job 1: finished with exit -9 (cancelled)"));
}

TEST_F(Kill, StopBeforeTheChildExistsLetsTheJobRunOn) {
  service.faults().add({.endpoint = "lines", .count = 1, .delay = 60s});
  addJob("sleep 100", {.taskSpace = "u1-a"});
  start();
  // The acknowledgement is on its way.
  ASSERT_TRUE(service.requests().waitFor("lines", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), 5);
  EXPECT_EQ(service.jobs().find(1)->exitCode, -SIGTERM);
  EXPECT_THAT(closedSpaces(), ElementsAre("u1-a"));
}

TEST_F(Kill, ChildThatHasClosedItsOutputKeepsTheProcessorBusyUntilItEnds) {
  timings.termination = {.step = 100ms, .steps = 15};
  timings.reportCycle = 10s;  // the end of the run finds the worker waiting
  config.noSweep = true;
  config.pollWait = 1;
  // The job, then a second in which its child becomes deaf, then the end.
  service.faults().add(
      {.endpoint = "poll", .after = 2, .reply = local::FaultReply{.status = 401, .body = ""}});
  const auto id = addJob("closed deaf");
  const auto before = std::clock();
  EXPECT_EQ(run().kind(), ExitReason::Kind::tokenRevoked);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2);
  EXPECT_EQ(service.jobs().find(id)->exitCode, -SIGKILL);
}

TEST_F(Kill, ScriptThatIsNeverReadStopsHeartbeatsOrTheCancel) {
  service.hello().patch({{"cleanup_timeout_seconds", 0.1}});
  config.execCommand = roleCommand("noinput");
  config.noSweep = true;
  const auto id = startJob(std::string(10'000'000, 'x'));
  EXPECT_TRUE(waitForPosts(5));
  EXPECT_TRUE(service.jobs().cancel(id));
  EXPECT_EQ(doneJob(id).exitCode, -SIGTERM);
}

TEST_F(Kill, CloseOfTheSpaceDependsOnTheWrongThings) {
  const struct {
    const char* script;
    const char* kind;
    bool closed;
  } cases[] = {
      {"say a", "run", false},    {"exit 3", "run", true},   {"raise 9", "browser", true},
      {"exit 3", "close", false}, {"exit 3", "list", false},
  };
  config.noSweep = true;
  config.serveJobs = 1;
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.script) + " " + row.kind);
    forget();
    setSpaces({"it's"});
    addJob(row.script, {.kind = row.kind, .taskSpace = "it's"});
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_EQ(closedSpaces(), std::vector<std::string>(row.closed ? 1 : 0, "it's"));
    EXPECT_EQ(log->has("space \"it's\": close -> exit 0"), row.closed);
  }
}

}  // namespace
}  // namespace verdo::test
