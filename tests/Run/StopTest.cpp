#include "tests/Support/DriverFixture.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using testing::Contains;
using testing::IsEmpty;

constexpr double kSoon = 1.0;  // seconds; nothing that a stop waits for below ends before 10

class Stop : public DriverFixture {};

TEST_F(Stop, RunnerThatWasStoppedBeforeItsRunAsksTheServer) {
  runner = std::make_shared<DriverRunner>(config, log, observer, timings);
  runner->stop();
  runner->stop();
  EXPECT_EQ(runner->run(), ExitReason::stopped());
  EXPECT_EQ(service.requestCount("poll"), 0u);
  EXPECT_THAT(observer->events(), IsEmpty());
  runner->stop();
}

TEST_F(Stop, HelloIsWaitedFor) {
  service.outage(local::OutageKind::hang, 60s);
  start();
  ASSERT_TRUE(service.waitForRequest("hello", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_TRUE(service.waitForHangUps("hello", 1, kLong));
}

TEST_F(Stop, PollIsWaitedForOrRepeated) {
  start();
  ASSERT_TRUE(service.waitForRequest("poll", 1, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_TRUE(service.waitForHangUps("poll", 1, kLong));
  EXPECT_EQ(service.requestCount("poll"), 1u);
  EXPECT_THAT(texts('w'), Not(Contains(testing::HasSubstr("poll failed"))));
}

TEST_F(Stop, PauseAfterAReplyIsSleptThrough) {
  timings.throttlePause = 10s;
  timings.emptyPollPause = 10s;
  timings.pollRetryFirst = 10s;
  for (const int status : {429, 204, 500}) {
    SCOPED_TRACE(status);
    service.reset();
    service.addFault({.endpoint = "poll", .reply = FaultReply{.status = status}});
    start();
    ASSERT_TRUE(service.waitForReply("poll", status == 204 ? 2 : 1, kLong));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_LT(elapsed.count(), kSoon);
  }
}

TEST_F(Stop, WaitForALaneIsSleptThrough) {
  timings.laneWait = 10s;
  config.maxJobs = 1;
  const auto id = addJob("sleep 100");
  start();
  ASSERT_TRUE(service.waitForLine(id, "ready", kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), kSoon);
  EXPECT_EQ(service.job(id)->exitCode, -SIGTERM);
}

TEST_F(Stop, ManyAtOnceCrossEachOther) {
  addJob("deaf");
  addJob("flood 100000000000", {.keepLines = false});
  start();
  ASSERT_TRUE(service.waitForLine(1, "ready", kLong));
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 4; ++i) {
    stoppers.emplace_back([&] {
      for (int again = 0; again < 5; ++again) runner->stop();
    });
  }
  for (auto& stopper : stoppers) stopper.join();
  EXPECT_EQ(finish(), ExitReason::stopped());
  EXPECT_TRUE(service.job(1)->completed);
  EXPECT_TRUE(service.job(2)->completed);
}

TEST_F(Stop, UnreachableServerHoldsUpAStopForLongerThanSaid) {
  const auto id = addJob("sleep 100");
  start();
  ASSERT_TRUE(service.waitForLine(id, "ready", kLong));
  service.stop();
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), 3);
  EXPECT_THAT(texts('e'), Contains(testing::HasSubstr("job 1: lost the server, killing the job")));
}

}  // namespace
}  // namespace verdo::test
