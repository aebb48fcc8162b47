#include "LocalService/LocalService.h"
#include "VerdoDriver/Model/DriverSupervisor.h"
#include "tests/Support/AppFixture.h"
#include "tests/Support/Misbehaviour.h"
#include "tests/Support/ScopedEnv.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

// The real driver against the service, with a report ten times a second and half a second between
// SIGTERM and SIGKILL; the supervisor's clock is ours.
class SupervisedDriver : public AppFixture {};

TEST_F(SupervisedDriver, GoesAstrayBetweenStartAndDrain) {
  const ScopedEnv homeVariable("HOME", home.path());
  local::LocalService service;
  service.start();
  Timings timings;
  timings.reportCycle = 100ms;
  timings.termination.step = 20ms;
  DriverSupervisor supervisor(std::make_shared<RealDriverFactory>(nullptr, timings), log, clock);
  const auto reaches = [&](Kind kind) {
    return spinUntil([&] { return kindOf(supervisor.state()) == kind; }, 20s);
  };
  DriverConfig config(service.url(), service.token());
  config.execCommand = roleCommand("executor '" + home / "spaces" + "'");
  config.envFilePath = home / "driver.env";

  supervisor.start([&](const auto& reply) { reply(config); });
  ASSERT_TRUE(reaches(Kind::running));
  EXPECT_EQ(supervisor.username(), "local");

  service.jobs().add({.label = "mail", .payload = "say hello"});
  ASSERT_TRUE(
      spinUntil([&] { return supervisor.busyLanes() == std::vector<std::string>{"mail"}; }));
  ASSERT_TRUE(spinUntil([&] { return supervisor.servedCount() == 1; }));
  EXPECT_EQ(supervisor.lastJob(), "job 1 · mail · exit 0");
  ASSERT_TRUE(spinUntil([&] { return supervisor.busyLanes().empty(); }));

  service.stop();
  ASSERT_TRUE(spinUntil([&] { return supervisor.retryMessage().has_value(); }));
  EXPECT_THAT(*supervisor.retryMessage(), HasSubstr("poll failed (GET /api/driver/poll?wait=25"));
  supervisor.restart();
  ASSERT_TRUE(reaches(Kind::backoff));
  EXPECT_THAT(std::get<DriverBackoff>(supervisor.state()).reason,
              HasSubstr("Couldn't connect to server"));
  service.start();
  config.server = service.url();
  supervisor.kick();
  ASSERT_TRUE(reaches(Kind::running));
  EXPECT_EQ(supervisor.lastError(), std::nullopt);

  // A stop takes a while when a child ignores SIGTERM; here nobody waits for it.
  service.jobs().add({.label = "deaf", .payload = "deaf"});
  ASSERT_TRUE(service.jobs().waitForLine(2, "ready", 20s));
  bool stopped = false;
  supervisor.stop(DriverSupervisor::kStopTimeout, [&] { stopped = true; });
  clock->advance(DriverSupervisor::kStopTimeout);
  EXPECT_TRUE(stopped);
  supervisor.start([&](const auto& reply) { reply(config); });
  EXPECT_FALSE(supervisor.hasCurrentRun());
  ASSERT_TRUE(reaches(Kind::running));
  EXPECT_TRUE(log->has("» drained run #3 returned (exit 130)"));

  supervisor.stop(DriverSupervisor::kStopTimeout);
  ASSERT_TRUE(reaches(Kind::idle));
  EXPECT_TRUE(log->has("» run #4 ended: exit 130 after"));
}

}  // namespace
}  // namespace verdo::test
