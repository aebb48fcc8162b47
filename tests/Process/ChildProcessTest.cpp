#include "VerdoDriverCore/Process/ChildProcess.h"
#include "tests/Support/Children.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace verdo {
namespace {

using namespace test;
using namespace std::chrono_literals;
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

}  // namespace
}  // namespace verdo
