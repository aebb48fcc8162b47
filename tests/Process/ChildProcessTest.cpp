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

TEST(ChildProcess, IsNotKilledWhenItIsDeafOrWithoutGrace) {
  constexpr TerminationTimings kShort{10ms, 10};
  const auto child = launchRole({"deaf"});
  CollectedLines output(child->takeStdout());
  ASSERT_TRUE(output.start().waitForCount(1));
  const auto begin = Clock::now();
  child->terminateGroup(kShort);
  EXPECT_GE(Clock::now() - begin, kShort.step * kShort.steps);
  EXPECT_EQ(child->wait(), -SIGKILL);
}

// Such a child is out of the reach of signals to "its" group.
TEST(ChildProcess, IsReleasedEvenWhenItLeftItsGroup) {
  const auto child = launchRole({"regroup", "sleep", "20"});
  CollectedLines output(child->takeStdout());
  ASSERT_TRUE(output.start().waitForCount(1));
  const auto begin = Clock::now();
  child->release();
  EXPECT_LT(Clock::now() - begin, 5s);
  EXPECT_EQ(child->poll(), -SIGKILL);
  EXPECT_FALSE(hasChildren()) << "not even a zombie";
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
