#pragma once

#include "FakeFrameworks/FakeFrameworks.h"
#include "tests/Support/AppLogCapture.h"

#include <gmock/gmock.h>

namespace verdo::test {

/// A fresh stand-in of the frameworks for each test, which must give back every object that it was
/// given, once.
class FakeSystem : public testing::Test {
 protected:
  FakeSystem() { fake::reset(); }
  ~FakeSystem() override {
    EXPECT_EQ(fake::liveObjects(), before_) << "objects that nobody will release";
    EXPECT_EQ(fake::overReleases(), 0);
  }

  const AppLogCapture log;

 private:
  const int before_ = fake::liveObjects();
};

}  // namespace verdo::test
