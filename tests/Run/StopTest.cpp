#include "tests/Support/DriverFixture.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using testing::Contains;
using testing::IsEmpty;

constexpr double kSoon = 1.0;  // seconds; nothing that a stop waits for below ends before 10

class Stop : public DriverFixture {};

TEST_F(Stop, HelloIsWaitedFor) {
  service.outage(local::OutageKind::hang, 60s);
  start();
  ASSERT_TRUE(service.requests().waitFor("hello", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_TRUE(service.requests().waitForHangUps("hello", 1, kLong));
}

TEST_F(Stop, PollIsWaitedForOrRepeated) {
  start();
  ASSERT_TRUE(service.requests().waitFor("poll", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_TRUE(service.requests().waitForHangUps("poll", 1, kLong));
  EXPECT_EQ(service.requests().count("poll"), 1u);
  EXPECT_THAT(texts('w'), Not(Contains(testing::HasSubstr("poll failed"))));
}

TEST_F(Stop, UnreachableServerHoldsUpAStopForLongerThanSaid) {
  const auto id = addJob("sleep 100");
  start();
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  service.stop();
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), 3);
  // Which post notices first depends on the moment of the stop.
  EXPECT_THAT(texts('e'), Contains(testing::ContainsRegex(
                              "job 1: (lost the server, killing the job|could not report)")));
}

}  // namespace
}  // namespace verdo::test
