#include "VerdoDriverCore/Run/TaskSpaces.h"
#include "tests/Support/DriverFixture.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Misbehaviour.h"

#include <future>

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Names = std::vector<std::string>;

class Sweep : public DriverFixture {};

TEST_F(Sweep, StartClosesForeignSpacesOrLeavesItsOwn) {
  const Names all{"u1-a", "mine", "agent-\"x'\\y", "xu1-"};
  const struct {
    bool all;
    bool none;
    Names closed;
  } cases[] = {{false, false, {all[0], all[2]}}, {true, false, all}, {false, true, {}}};
  config.serveJobs = 1;
  for (const auto& row : cases) {
    SCOPED_TRACE(testing::PrintToString(row.closed));
    forget();
    setSpaces(all);
    config.sweepAll = row.all;
    config.noSweep = row.none;
    addJob("say a", {.taskSpace = "u1-a"});
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_EQ(closedSpaces(), row.closed);
    EXPECT_EQ(log->has("closed "), !row.closed.empty());
    if (row.closed.empty()) continue;
    EXPECT_THAT(texts('i'), Contains(fmt::format("closed {} leftover task space(s): {}",
                                                 row.closed.size(), fmt::join(row.closed, ", "))));
    EXPECT_THAT(texts('i'), Contains("space 'agent-\"x\\'\\\\y': close -> exit 0"));
  }
}

TEST_F(Sweep, ReaperClosesUsedOrForeignSpacesOrNone) {
  config.idleClose = 0.25;
  config.reapInterval = 0.05;
  config.noSweep = true;
  setSpaces({"mine", "u1-busy", "u1-old"});
  const auto begun = std::chrono::steady_clock::now();
  const auto id = startJob(waitScript(), {.taskSpace = "u1-busy"});
  ASSERT_TRUE(log->waitFor("idle reaper closed 1 space(s): u1-old"));
  EXPECT_GE(std::chrono::steady_clock::now() - begun, 250ms) << "not idle for long yet";
  // Looked at many times since, the job's own is still open.
  ASSERT_TRUE(waitForPosts(8));
  EXPECT_THAT(spaces(), ElementsAre("mine", "u1-busy"));
  letGo();
  EXPECT_EQ(doneJob(id).exitCode, 0);
  const auto ended = std::chrono::steady_clock::now();
  EXPECT_TRUE(log->waitFor("idle reaper closed 1 space(s): u1-busy"));
  // Its idle time began with the end of the job.
  EXPECT_GE(std::chrono::steady_clock::now() - ended, 200ms);
  EXPECT_THAT(spaces(), ElementsAre("mine"));
  EXPECT_THAT(texts('i'), testing::Not(Contains(testing::HasSubstr("reaper closed 0"))));
}

TEST_F(Sweep, ReaperClosesASpaceThatAJobHasJustTaken) {
  setSpaces({"u1-a", "u1-b"});
  const auto browser = std::make_shared<Browser>(
      ExecutorCommand{selfPath(), roleArgv({"executor", path("spaces")}), currentEnvironment()},
      20s, log, timings);
  int questions = 0;
  // A job takes the space between the list and the close.
  const auto isUsed = [&](const std::string& name) { return name == "u1-a" && ++questions > 1; };
  const auto spacesOf = [&](Timings::Duration idleClose) {
    return std::make_shared<TaskSpaces>(TaskSpaces::Options{idleClose, 1h, SpacePattern(), timings},
                                        browser, log, nullptr, isUsed);
  };
  const auto reaping = spacesOf(-1ms);
  reaping->reapIdle();
  EXPECT_THAT(spaces(), ElementsAre("u1-a"));
  EXPECT_THAT(texts('i'), Contains("idle reaper closed 1 space(s): u1-b"));
  questions = 0;
  spacesOf(0ms)->sweepAtStart(TaskSpaces::Sweep::own);
  EXPECT_THAT(spaces(), ElementsAre("u1-a"));
}

TEST_F(Sweep, JobStartsInASpaceThatIsJustBeingClosed) {
  config.noSweep = true;
  config.idleClose = 0.001;
  config.reapInterval = 0.01;
  setSpaces({"u1-a"});
  hangOn("close");
  start();
  ASSERT_TRUE(hangs());
  EXPECT_EQ(doneJob(addJob("say b", {.taskSpace = "u1-b"})).exitCode, 0);
  const auto id = addJob("say a", {.taskSpace = "u1-a"});
  EXPECT_FALSE(log->waitFor("[run u1-a]: starting", 200ms));
  std::remove(path("spaces.hang").c_str());
  for (const pid_t pid : processesOf(home())) ::kill(pid, SIGKILL);
  EXPECT_EQ(doneJob(id).exitCode, 0);
  EXPECT_TRUE(log->has("space 'u1-a': close -> exit -9"));
}

TEST_F(Sweep, SpaceThatWouldNotCloseIsReportedAsClosed) {
  setSpaces({"u1-a"});
  hangOn("close");
  service.hello().patch({{"cleanup_timeout_seconds", 0.2}});
  start();
  ASSERT_TRUE(observer->waitFor("connected"));
  ASSERT_TRUE(log->waitFor("serving up to"));
  EXPECT_TRUE(log->has("space 'u1-a': close -> exit 124"));
  EXPECT_FALSE(log->has("closed 1 leftover"));
}

TEST_F(Sweep, SecondDriverClosesTheSpacesOfTheFirstOrHidesThatItDoesNot) {
  setSpaces({"u1-busy", "u1-other"});
  config.noSweep = true;
  const auto id = startJob(waitScript(), {.taskSpace = "u1-busy"});
  config.noSweep = false;
  config.pollWait = 0;
  config.idleExit = 0.3;
  config.idleClose = 0.001;
  config.reapInterval = 0.01;
  const auto otherLog = std::make_shared<RecordingLog>();
  const auto watching = std::make_shared<RecordingObserver>();
  EXPECT_EQ(DriverRunner(config, otherLog, watching, timings).run(), ExitReason::clean());
  const std::string holder = "process " + std::to_string(::getpid());
  EXPECT_THAT(watching->events(), Contains("shares [" + holder + "]").Times(1));
  answerWith("poll", 426, "no", 1);  // a run that ends so sweeps once more
  EXPECT_EQ(DriverRunner(config, otherLog, {}, timings).run().code(), 6);
  EXPECT_THAT(closedSpaces(), IsEmpty());
  EXPECT_TRUE(otherLog->has("another driver (" + holder + ")"));
  // Once it is alone it looks after them, also in the middle of its run.
  config.idleExit = std::nullopt;
  DriverRunner heir(config, otherLog, watching, timings);
  auto inheriting = std::async(std::launch::async, [&] { return heir.run(); });
  EXPECT_TRUE(watching->waitFor("shares [process", 2));
  letGo();
  doneJob(id);
  stopAndFinish();
  EXPECT_TRUE(watching->waitFor("shares []"));
  setSpaces({"u1-late"});
  EXPECT_TRUE(otherLog->waitFor("idle reaper closed 1 space(s): u1-late"));
  heir.stop();
  EXPECT_EQ(inheriting.get(), ExitReason::stopped());
  EXPECT_THAT(spaces(), IsEmpty());
}

}  // namespace
}  // namespace verdo::test
