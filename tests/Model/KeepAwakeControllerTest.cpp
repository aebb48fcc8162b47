#include "VerdoDriver/Model/KeepAwakeController.h"
#include "tests/Support/ManualClock.h"

#include <string>

#include <gtest/gtest.h>

namespace verdo::test {
namespace {

/// Notes the changes: "R" and "J" for a hold while the driver runs or for a job, "-" for a release.
class RecordingAssertion : public PowerAssertion {
 public:
  void hold(const std::string& reason) override {
    if (isHeld_) return;
    isHeld_ = true;
    changes += reason == "Verdo Driver is running a job" ? "J"
               : reason == "Verdo Driver is running"     ? "R"
                                                         : "?";
  }
  void release() override {
    if (std::exchange(isHeld_, false)) changes += "-";
  }
  bool isHeld() const override { return isHeld_; }

  std::string changes;

 private:
  bool isHeld_ = false;
};

TEST(KeepAwake, SleepsDuringWorkOrStaysAwakeWithout) {
  // Steps: a, j = mode always, whileJobRuns; R, S = driver runs, stops; B, I = busy, idle; a digit
  // lets that many seconds pass.
  const struct {
    const char* steps;
    const char* changes;
  } table[] = {
      {"aBI", ""},
      {"aRBIBI", "R"},
      {"aRBS", "R-"},
      {"jR", ""},
      {"jB", ""},
      {"jRBI9B99", "J"},
      {"jRBI9", "J"},
      {"jRBI91", "J-"},
      {"jRBI9I1", "J-"},   // asked again: the delay does not begin anew
      {"jRBI9B9I9", "J"},  // a new delay
      {"jRBI9B9I91", "J-"},
      {"jRBS", "J-"},
      {"jRBI9SRBI1", "J-J"},  // the old delay is over
                              // with the stop
      {"aRj9", "R"},
      {"aRj91", "R-"},
      {"aRj9a9", "R"},
      {"aRBjI91", "R-"},
  };
  for (const auto& [steps, changes] : table) {
    const auto assertion = std::make_shared<RecordingAssertion>();
    const auto clock = std::make_shared<ManualClock>();
    KeepAwakeController controller(assertion, clock, KeepAwakeMode::always);
    for (const char step : std::string(steps)) {
      if (step == 'a') controller.setMode(KeepAwakeMode::always);
      if (step == 'j') controller.setMode(KeepAwakeMode::whileJobRuns);
      if (step == 'R' || step == 'S') controller.setDriverRunning(step == 'R');
      if (step == 'B' || step == 'I') controller.setBusy(step == 'B');
      if (step <= '9') clock->advance(step - '0');
      if (step > '9') controller.evaluate();
    }
    EXPECT_EQ(assertion->changes, changes) << steps;
  }
}

}  // namespace
}  // namespace verdo::test
