#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "tests/Support/Children.h"
#include "tests/Support/ScopedEnv.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>

namespace verdo {
namespace {

using namespace test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr TerminationTimings kShort{10ms, 10};

/// Every test must leave no descriptor and no process behind, not even a zombie.
class ChildProcessTest : public testing::Test {
 protected:
  ~ChildProcessTest() override {
    EXPECT_EQ(openDescriptors(), descriptorsBefore_);
    EXPECT_FALSE(hasChildren());
  }

 private:
  const std::vector<std::string> descriptorsBefore_ = openDescriptors();
};

TEST_F(ChildProcessTest, TellsHowTheChildEnded) {
  const std::pair<Lines, std::int32_t> cases[] = {{{"exit", "255"}, 255},
                                                  {{"raise", std::to_string(SIGKILL)}, -SIGKILL}};
  for (const auto& [role, status] : cases) {
    const auto child = launchRole(role);
    EXPECT_EQ(child->wait(), status);
    EXPECT_EQ(child->poll(), status);
    child->release();
    child->release();
    EXPECT_EQ(child->poll(), status) << "the status outlives the process";
    EXPECT_EQ(child->wait(), status);
  }
}

TEST_F(ChildProcessTest, IsKilledAfterTheGraceWhenItIsDeaf) {
  const auto child = launchRole({"deaf"});
  CollectedLines output(child->takeStdout());
  ASSERT_TRUE(output.start().waitForCount(1));
  const auto begin = Clock::now();
  child->terminateGroup(kShort);
  EXPECT_GE(Clock::now() - begin, kShort.step * kShort.steps);
  EXPECT_EQ(child->wait(), -SIGKILL);
}

// Such a child is out of the reach of signals to "its" group.
TEST_F(ChildProcessTest, IsReleasedEvenWhenItLeftItsGroup) {
  const auto child = launchRole({"regroup", "sleep", "20"});
  CollectedLines output(child->takeStdout());
  ASSERT_TRUE(output.start().waitForCount(1));
  const auto begin = Clock::now();
  child->release();
  EXPECT_LT(Clock::now() - begin, 5s);
  EXPECT_EQ(child->poll(), -SIGKILL);
}

Lines outputOf(const Lines& role, const Environment& env = currentEnvironment()) {
  const auto child = launchRole(role, env);
  return CollectedLines(child->takeStdout()).start().all();
}

TEST(Spawn, HandsDownNeitherDescriptorsNorEnvironmentNorSignals) {
  const UniqueFd inherited(::open("/dev/null", O_RDONLY));
  EXPECT_THAT(outputOf({"descriptors"}), ElementsAre("0", "1", "2"));
  const ScopedEnv secret("VERDO_DRIVER_TOKEN", "secret");
  EXPECT_THAT(outputOf({"environment"}, {{"B", "x=y"}, {"A", ""}}), ElementsAre("A=", "B=x=y"));

  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const auto handler = ::signal(SIGUSR1, SIG_IGN);
  const Lines lines = outputOf({"signals"});
  ::signal(SIGUSR1, handler);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_THAT(lines, ElementsAre("Group:\town", "SigBlk:\t0", "SigIgn:\t0"));
}

}  // namespace
}  // namespace verdo
