#include "VerdoDriverCore/Run/PollWait.h"
#include "VerdoDriverCore/Run/RunningJobs.h"
#include "tests/Support/NoThreads.h"
#include "tests/Support/RecordingObserver.h"

#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<Worker> workerInLane(std::int64_t id, const std::string& lane) {
  Job job;
  job.id = id;
  job.lane = job.kind = lane;
  return std::make_shared<Worker>(nullptr, std::move(job));
}

/// Is slow to hear of the end of job 1.
class SlowObserver : public test::RecordingObserver {
 public:
  void driverJobFinished(std::int64_t id, const std::string& lane, std::int32_t exitCode,
                         const std::optional<std::string>& error) override {
    if (id == 1) {
      hearing.set();
      mayGoOn.waitFor(20s);
    }
    RecordingObserver::driverJobFinished(id, lane, exitCode, error);
  }
  Event hearing;
  Event mayGoOn;
};

TEST(RunningJobs, ReportsOvertakeEachOther) {
  const auto observer = std::make_shared<SlowObserver>();
  RunningJobs jobs(observer);
  const auto a = workerInLane(1, "a");
  const auto b = workerInLane(2, "b");
  EXPECT_TRUE(jobs.add(a));
  EXPECT_FALSE(jobs.add(workerInLane(3, "a")));
  EXPECT_TRUE(jobs.add(b));
  std::thread slow([&] { jobs.remove(*a); });
  ASSERT_TRUE(observer->hearing.waitFor(20s));
  jobs.remove(*b);
  EXPECT_FALSE(jobs.isQuiet());  // the ends are not told yet
  observer->mayGoOn.set();
  slow.join();
  EXPECT_TRUE(jobs.isQuiet());
  EXPECT_THAT(
      observer->events(),
      testing::ElementsAre("started 1 a a", "lanes [a]", "started 2 b b", "lanes [a b]",
                           "finished 1 a 0 -", "lanes [b]", "finished 2 b 0 -", "lanes []"));
}

TEST(RunningJobs, JobWithoutAThreadPassesForDone) {
  const auto observer = std::make_shared<test::RecordingObserver>();
  RunningJobs jobs(observer);
  const auto worker = workerInLane(1, "a");
  EXPECT_TRUE(jobs.add(worker));
  {
    const test::NoThreads now;
    EXPECT_THROW(worker->start(), std::system_error);
  }
  jobs.remove(*worker);
  EXPECT_TRUE(observer->waitFor("finished 1 a 127 driver error: system_error"));
}

TEST(PollWait, AsksAProxyForMoreThanItGives) {
  // After how many seconds polls were ended, and what wait is asked for from then on.
  const std::pair<std::vector<double>, double> cases[] = {
      {{30.1}, 50},    {{30.1, 30.6}, 28}, {{30.1, 32}, 50},       {{4.9, 4.9}, 50},
      {{5.2, 5.3}, 5}, {{60, 60}, 50},     {{20, 30.2, 30.1}, 28}, {{30, 30, 10, 10}, 8},
  };
  for (const auto& [ends, asked] : cases) {
    PollWait wait(50);
    std::string told;
    for (const double end : ends) told += wait.endedByProxy(fromSeconds(end)).value_or("");
    EXPECT_EQ(wait.seconds(), asked) << testing::PrintToString(ends);
    const auto news =
        fmt::format("after {:.0f} s; polling with a wait of {} s", ends.back(), asked);
    EXPECT_THAT(told, asked == 50 ? testing::Matcher<std::string>("") : testing::HasSubstr(news));
  }
}

}  // namespace
}  // namespace verdo
