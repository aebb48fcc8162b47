#include "VerdoDriverCLI/ServiceReport.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using cli::ServiceReport;

class Service : public testing::Test {
 protected:
  ServiceReport report(std::optional<std::chrono::microseconds> watchdog = {}) {
    return {[this](const std::string& assignments) { told.push_back(assignments); }, watchdog};
  }
  std::vector<std::string> told;
};

TEST_F(Service, IsToldSomethingElseThanTheRunDoes) {
  auto run = report();
  const std::pair<std::function<void()>, const char*> steps[] = {
      {[] {}, "STATUS=connecting"},
      {[&] { run.driverConnected("ann", 7, "1"); }, "READY=1\nSTATUS=serving ann; idle"},
      {[&] { run.driverBusyLanesChanged({"a", "b"}); }, "STATUS=serving ann; busy: a, b"},
      {[&] { run.driverRetrying("poll failed (x)", 4); },
       "STATUS=serving ann; busy: a, b; poll failed (x); retrying in 4 s"},
      {[&] { run.driverBusyLanesChanged({}); },
       "STATUS=serving ann; idle; poll failed (x); retrying in 4 s"},
      {[&] { run.driverRecovered(); }, "STATUS=serving ann; idle"},
      {[&] { run.driverBusyLanesChanged({"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}); },
       "STATUS=serving ann; busy: 1, 2, 3, 4, 5, 6, 7, 8 and 2 more"},
      {[&] { run.driverBusyLanesChanged({"a"}); }, "STATUS=serving ann; busy: a"},
      {[&] { run.driverStopping(); }, "STOPPING=1\nSTATUS=stopping; busy: a"},
      {[&] { run.driverBusyLanesChanged({}); }, "STATUS=stopping"},
      {[&] { run.ended("no executor\nREADY=1"); }, "STATUS=no executor\\x0aREADY=1"},
  };
  std::vector<std::string> wanted;
  for (const auto& [act, text] : steps) {
    act();
    wanted.emplace_back(text);
    EXPECT_EQ(told, wanted);
  }
}

TEST_F(Service, TextsFromOutsideForgeAssignmentsOrAreTooLongToArrive) {
  auto run = report();
  run.driverConnected("ann\nMAINPID=1", 7, "1");
  EXPECT_EQ(told.back(), "READY=1\nSTATUS=serving ann\\x0aMAINPID=1; idle");
  std::string lane;
  for (int i = 0; i < 3000; ++i) lane += "\U0001F600";
  run.driverBusyLanesChanged({lane, lane});
  EXPECT_LT(told.back().size(), 4096u);  // systemd drops longer ones
  EXPECT_EQ(told.back(), repairUtf8(told.back()));
}

TEST_F(Service, WatchdogIsFedTooSeldomOrWithoutEnd) {
  const std::pair<std::optional<std::chrono::microseconds>, bool> cases[] = {{std::nullopt, false},
                                                                             {1h, true}};
  for (const auto& [watchdog, isFed] : cases) {
    auto run = report(watchdog);
    told.clear();
    for (int i = 0; i < 5; ++i) run.driverIsAlive();
    EXPECT_EQ(told, std::vector<std::string>(isFed ? 1 : 0, "WATCHDOG=1"));
  }
  auto run = report(3us);
  told.clear();
  const auto begin = ServiceReport::Clock::now();
  while (told.size() < 2 && ServiceReport::Clock::now() - begin < 20s) run.driverIsAlive();
  EXPECT_EQ(told.size(), 2u);
}

}  // namespace
}  // namespace verdo::test
