#include "VerdoDriverCore/Process/Sync.h"

#include <cmath>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(Event, WaitsNoLongerThanItShould) {
  Event event;
  EXPECT_FALSE(event.waitFor(20ms));
  EXPECT_FALSE(event.waitFor(-1h));
  event.set();
  EXPECT_TRUE(event.waitFor(fromSeconds(HUGE_VAL)));
}

TEST(Seconds, SurviveAbsurdValues) {
  EXPECT_EQ(fromSeconds(2.5), 2500ms);
  EXPECT_EQ(fromSeconds(-0.001), -1ms);
  EXPECT_EQ(fromSeconds(std::nan("")), 0s);
  for (const double huge : {1e300, HUGE_VAL}) {
    EXPECT_EQ(fromSeconds(huge), 100 * 365 * 24h);
    EXPECT_EQ(fromSeconds(-huge), -100 * 365 * 24h);
    EXPECT_GT(Clock::now() + fromSeconds(huge), Clock::now()) << "no overflow";
  }
}

}  // namespace
}  // namespace verdo
