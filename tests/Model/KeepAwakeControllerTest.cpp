#include "VerdoDriver/Model/KeepAwakeController.h"
#include "VerdoDriver/Model/PowerAssertionGroup.h"
#include "tests/Support/ManualClock.h"

#include <gtest/gtest.h>

namespace verdo::test {
/// Notes the changes: "R" and "J" for a hold while the driver runs or for a job, "-" for a release.
/// A hold that is refused is an "x".
struct RecordingAssertion : PowerAssertion {
  void hold(const std::string& reason) override {
    if (isHeld()) return;
    if (refusals > 0) {
      --refusals;
      changes += 'x';
      return;
    }
    changes += reason.ends_with("running a job") ? "J" : "R";
  }
  void release() override { changes += "-"; }
  bool isHeld() const override {
    return !changes.empty() && changes.back() != '-' && changes.back() != 'x';
  }

  int refusals = 0;
  std::string changes;
};

TEST(KeepAwake, SleepsDuringWorkOrStaysAwakeWithout) {
  // Steps: a, j = mode always, whileJobRuns; R, S = driver runs, stops; B, I = busy, idle; a digit
  // lets that many seconds pass.
  const std::pair<std::string, std::string> table[] = {
      {"aBIRBIBS", "R-"},    {"jBIRIS", ""},
      {"jRBI9B99", "J"},     {"jRBI9I1", "J-"},  // asked again: the delay does not begin anew
      {"jRBI9B9I9", "J"},    {"jRBS", "J-"},
      {"jRBI9SRBI1", "J-J"},  // the old delay is over with the stop
      {"aRj91", "R-"},       {"aRj9a9", "R"},
  };
  for (const auto& [steps, changes] : table) {
    const auto assertion = std::make_shared<RecordingAssertion>();
    const auto clock = std::make_shared<ManualClock>();
    KeepAwakeController controller(assertion, clock, KeepAwakeMode::always);
    for (const char step : steps) {
      if (step == 'a') controller.setMode(KeepAwakeMode::always);
      if (step == 'j') controller.setMode(KeepAwakeMode::whileJobRuns);
      if (step == 'R' || step == 'S') controller.setDriverRunning(step == 'R');
      if (step == 'B' || step == 'I') controller.setBusy(step == 'B');
      if (step <= '9') clock->advance(std::chrono::seconds(step - '0'));
      if (step > '9') controller.evaluate();
    }
    EXPECT_EQ(assertion->changes, changes) << steps;
  }
}

TEST(KeepAwake, TakesARefusalForTheLastWord) {
  const auto first = std::make_shared<RecordingAssertion>();
  const auto second = std::make_shared<RecordingAssertion>();
  const auto clock = std::make_shared<ManualClock>();
  KeepAwakeController controller(std::make_shared<PowerAssertionGroup>(
                                     std::vector<std::shared_ptr<PowerAssertion>>{first, second}),
                                 clock, KeepAwakeMode::always);
  const auto run = [&](bool runs) {
    controller.setDriverRunning(runs);
    controller.evaluate();
  };
  second->refusals = 2;
  run(true);
  run(true);
  clock->advance(std::chrono::seconds(59));
  EXPECT_EQ(first->changes + second->changes, "Rxx");
  clock->advance(std::chrono::seconds(1));
  EXPECT_EQ(first->changes + second->changes, "RxxR");
  run(false);
  EXPECT_EQ(clock->pendingCount(), 0u);
  EXPECT_EQ(first->changes + second->changes, "R-xxR-");
  // What one of them holds is let go of, too.
  second->refusals = 1;
  run(true);
  run(false);
  EXPECT_EQ(first->changes, "R-R-");
}

}  // namespace verdo::test
