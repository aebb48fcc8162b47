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
  // Two clocks read one after the other differ a little.
  for (const auto& [sleep, told] : {std::pair(0ms, 0), {3ms, 0}, {30'000ms, 1}}) {
    asleep = asleep.load() + sleep;
    const int before = looks;
    EXPECT_TRUE(eventually([&] { return looks >= before + 3; }));
    EXPECT_EQ(wakeUps, told);
  }
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
