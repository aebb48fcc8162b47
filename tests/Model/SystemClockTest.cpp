#include "VerdoDriver/Model/SystemClock.h"
#include "tests/Support/MainLoop.h"

#include <gtest/gtest.h>

namespace verdo::test {

using namespace std::chrono_literals;

std::chrono::nanoseconds awake() { return std::chrono::steady_clock::now().time_since_epoch(); }

TEST(SystemClock, RunsBlocksTooEarlyTwiceAfterACancelOrInAnotherOrder) {
  SystemClock clock(awake);
  std::string ran;
  const auto start = std::chrono::steady_clock::now();
  const auto elapsed = [&] { return std::chrono::steady_clock::now() - start; };
  clock.after(60ms, [&] {
    EXPECT_GE(elapsed(), 60ms);
    ran += 'd';
  });
  const auto later = clock.after(30ms, [&] { ran += 'X'; });
  clock.after(30ms, [&, later] {
    EXPECT_GE(elapsed(), 30ms);
    ran += 'c';
  });
  const auto cancelled = clock.after(10ms, [&] { ran += 'X'; });
  clock.after(-1s, [&, later] {
    ran += 'a';
    later->cancel();
    clock.after(0s, [&] { ran += 'b'; });
  });
  clock.after(Clock::Duration::max(), [&] { ran += 'X'; });
  cancelled->cancel();
  cancelled->cancel();
  EXPECT_TRUE(cancelled->isCancelled() && !later->isCancelled());
  EXPECT_TRUE(ran.empty()) << "within the call";
  EXPECT_TRUE(spinUntil([&] { return ran.size() == 4; }));
  clock.catchUp();
  EXPECT_EQ(ran, "abcd");
}

TEST(SystemClock, CountsNoSleepOrFollowsTheDate) {
  std::chrono::nanoseconds uptime{};  // stands still in between, so that ends can be equal
  SystemClock clock([&] { return uptime; });
  const auto before = clock.now();
  EXPECT_LT(std::chrono::abs(before - std::chrono::system_clock::now()), 5s);
  std::string ran;
  clock.after(1h, [&] { ran += '2'; });
  // One that starts itself again at once must not hold the others up.
  clock.after(30min, [&] {
    ran += '1';
    clock.after(0s, [&] { ran += '3'; });
  });
  clock.after(2h, [&] { ran += 'X'; });
  uptime = 1h;
  EXPECT_EQ(clock.now() - before, 1h);
  clock.catchUp();
  EXPECT_EQ(ran, "12");
  EXPECT_TRUE(spinUntil([&] { return ran == "123"; }));

  // The clock may go in the middle of what it runs.
  auto other = std::make_unique<SystemClock>(awake);
  other->after(0s, [&] { other.reset(); });
  other->after(0s, [&] { ran += 'X'; });
  const auto left = other->after(60s, [&] { ran += 'X'; });
  EXPECT_TRUE(spinUntil([&] { return !other; }));
  left->cancel();
  spin();
  EXPECT_EQ(ran, "123");
}

}  // namespace verdo::test
