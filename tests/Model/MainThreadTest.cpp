#include "VerdoDriver/Model/Background.h"
#include "tests/Support/EarlyPost.h"
#include "tests/Support/MainLoop.h"

#include <gtest/gtest.h>

namespace verdo::test {

TEST(MainThread, LosesWhatIsPostedTooEarlyOrAllThatFollowsIt) {
  int later = 0;
  runInBackground("poster", [&] {
    for (int i = 1; i <= 3; ++i) {
      MainThread::post([&later, i] {
        EXPECT_TRUE(earlyPostRan && MainThread::isCurrent());
        EXPECT_EQ(++later, i);
      });
    }
  });
  EXPECT_TRUE(spinUntil([&] { return later == 3; }));
}

}  // namespace verdo::test
