#include "tests/Support/DriverFixture.h"
#include "tests/Support/Misbehaviour.h"

#include <fstream>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Names = std::vector<std::string>;

class Sweep : public DriverFixture {};

TEST_F(Sweep, StartClosesForeignSpacesOrLeavesItsOwn) {
  struct Case {
    bool all;
    bool none;
    Names closed;
    const char* message;
  };
  const Names all{"u1-a", "mine", "agent-\"x'\\y", "xu1-"};
  const Case cases[] = {
      {false,
       false,
       {"u1-a", "agent-\"x'\\y"},
       "closed 2 leftover task space(s): u1-a, agent-\"x'\\y"},
      {true, false, all, "closed 4 leftover task space(s): u1-a, mine, agent-\"x'\\y, xu1-"},
      {false, true, {}, nullptr},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.all);
    setSpaces(all);
    std::remove(path("spaces.closed").c_str());
    log = std::make_shared<RecordingLog>();
    config.sweepAll = row.all;
    config.noSweep = row.none;
    config.serveJobs = 1;
    addJob("say a", {.taskSpace = "u1-a"});
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_EQ(closedSpaces(), row.closed);
    EXPECT_EQ(log->has("closed "), row.message != nullptr);
    if (!row.message) continue;
    EXPECT_THAT(texts('i'), Contains(row.message));
    EXPECT_THAT(texts('i'), Contains("space 'u1-a': close -> exit 0"));
    EXPECT_THAT(texts('i'), Contains("space 'agent-\"x\\'\\\\y': close -> exit 0"));
  }
}

TEST_F(Sweep, ReaperClosesUsedOrForeignSpacesOrNone) {
  config.idleClose = 0.25;
  config.reapInterval = 0.05;
  config.noSweep = true;
  setSpaces({"mine", "u1-busy", "u1-old"});
  const auto id = addJob("wait '" + path("go") + "'", {.taskSpace = "u1-busy"});
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  ASSERT_TRUE(log->waitFor("idle reaper closed 1 space(s): u1-old"));
  // Looked at many times since, the job's own is still open.
  ASSERT_TRUE(
      service.requests().waitForReply("lines", service.requests().count("lines") + 8, kLong));
  EXPECT_THAT(spaces(), ElementsAre("mine", "u1-busy"));
  std::ofstream(path("go")) << "";
  EXPECT_EQ(doneJob(id).exitCode, 0);
  const auto ended = std::chrono::steady_clock::now();
  EXPECT_TRUE(log->waitFor("idle reaper closed 1 space(s): u1-busy"));
  // Its idle time began with the end of the job.
  EXPECT_GE(std::chrono::steady_clock::now() - ended, 200ms);
  EXPECT_THAT(spaces(), ElementsAre("mine"));
  EXPECT_THAT(texts('i'), Not(Contains(HasSubstr("reaper closed 0"))));
}

}  // namespace
}  // namespace verdo::test
