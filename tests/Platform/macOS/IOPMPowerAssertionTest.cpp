#include "VerdoDriver/Platform/macOS/IOPMPowerAssertion.h"
#include "tests/Platform/macOS/FakeSystem.h"

namespace verdo::test {
namespace {

using testing::ElementsAre;

class IOPMPowerAssertionTest : public FakeSystem {};

TEST_F(IOPMPowerAssertionTest, HoldsTwoOrKeepsOne) {
  {
    IOPMPowerAssertion assertion;
    assertion.release();
    assertion.hold("a job runs");
    assertion.hold("another reason");
    EXPECT_TRUE(assertion.isHeld());
    assertion.release();
    EXPECT_FALSE(assertion.isHeld());
    assertion.hold("again");
  }
  EXPECT_THAT(fake::calls(),
              ElementsAre("IOPMAssertionCreateWithName NoIdleSleepAssertion 255 a job runs",
                          "IOPMAssertionRelease 1",
                          "IOPMAssertionCreateWithName NoIdleSleepAssertion 255 again",
                          "IOPMAssertionRelease 2"));
}

TEST_F(IOPMPowerAssertionTest, ClaimsToHoldWhatWasRefusedOrFillsTheLog) {
  IOPMPowerAssertion assertion;
  fake::setStatus("IOPMAssertionCreateWithName", -536870199);
  assertion.hold("reason");
  assertion.hold("reason");
  EXPECT_FALSE(assertion.isHeld());
  fake::setStatus("IOPMAssertionCreateWithName", 0);
  assertion.hold("reason");
  EXPECT_TRUE(assertion.isHeld());
  EXPECT_THAT(
      log.lines(),
      ElementsAre("verdo.keepAwake [KeepAwake] IOPMAssertionCreateWithName failed: -536870199",
                  "verdo.keepAwake [KeepAwake] NoIdleSleep assertion held (reason)"));
}

}  // namespace
}  // namespace verdo::test
