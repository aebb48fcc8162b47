#include "VerdoDriverCLI/SuspendWatch.h"
#include "VerdoDriverCore/System/SuspendClock.h"
#include "tests/Support/Leaks.h"

#include <atomic>

#include <gtest/gtest.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;

TEST(SuspendWatch, SleepIsMissedOrToldAgain) {
  std::atomic<std::chrono::nanoseconds> asleep{7h};  // slept before the start: nobody's business
  std::atomic<int> looks = 0;
  std::atomic<int> wakeUps = 0;
  const cli::SuspendWatch watch([&] { ++wakeUps; }, 1ms,
                                [&] {
                                  ++looks;
                                  return asleep.load();
                                });
  const auto lookTwice = [&] {
    const int before = looks;
    return eventually([&] { return looks >= before + 3; });
  };
  EXPECT_TRUE(lookTwice());
  EXPECT_EQ(wakeUps, 0);
  asleep = asleep.load() + 3ms;  // two clocks read one after the other
  EXPECT_TRUE(lookTwice());
  EXPECT_EQ(wakeUps, 0);
  asleep = asleep.load() + 30s;
  EXPECT_TRUE(lookTwice());
  EXPECT_EQ(wakeUps, 1);
}

TEST(SuspendWatch, ClockRunsWhileTheComputerIsAwake) {
  const auto before = timeSuspended();
  EXPECT_GE(before, -1ms);
  EXPECT_TRUE(eventually([begin = std::chrono::steady_clock::now()] {
    return std::chrono::steady_clock::now() - begin > 20ms;
  }));
  EXPECT_LT(timeSuspended() - before, 10ms);
}

}  // namespace
}  // namespace verdo::test
