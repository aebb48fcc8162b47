#include "VerdoDriverCore/Process/Sync.h"

#include <cmath>
#include <limits>
#include <thread>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(Event, WakesEveryWaiter) {
  Event event;
  EXPECT_FALSE(event.waitFor(-1h));
  std::vector<std::thread> threads;
  std::atomic<int> woken = 0;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      if (i == 0) event.wait();
      if (i == 0 || event.waitFor(fromSeconds(std::numeric_limits<double>::infinity()))) ++woken;
    });
  }
  event.set();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(woken, 3);
  EXPECT_TRUE(event.waitFor(-1h));
  event.clear();
  const auto begin = Clock::now();
  EXPECT_FALSE(event.waitFor(20ms));
  EXPECT_GE(Clock::now() - begin, 20ms);
}

TEST(Seconds, SurviveAbsurdValues) {
  EXPECT_EQ(fromSeconds(2.5), 2500ms);
  EXPECT_EQ(fromSeconds(-0.001), -1ms);
  EXPECT_EQ(fromSeconds(std::nan("")), 0s);
  for (const double huge : {1e300, std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(fromSeconds(huge), 100 * 365 * 24h);
    EXPECT_EQ(fromSeconds(-huge), -100 * 365 * 24h);
    EXPECT_GT(Clock::now() + fromSeconds(huge), Clock::now()) << "no overflow";
  }
  EXPECT_EQ(toSeconds(1500ms), 1.5);
}

}  // namespace
}  // namespace verdo
