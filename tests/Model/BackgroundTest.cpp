#include "VerdoDriver/Model/SecretTask.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/NoThreads.h"

#include <algorithm>
#include <latch>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace verdo::test {

using std::chrono::milliseconds;

TEST(SerialQueue, OvertakesOrOutlivesTheApp) {
  SerialQueue queue("serial");
  std::vector<int> done;  // used by one thread at a time, if the queue is one
  std::latch all(1);
  for (int i = 0; i < 100; ++i) queue.post([&, i] { done.push_back(i); });
  queue.post([&] { all.count_down(); });
  all.wait();
  ASSERT_EQ(done.size(), 100);
  EXPECT_TRUE(std::ranges::is_sorted(done));
  {
    const NoThreads shortage;
    EXPECT_THROW(SerialQueue("none").post([] {}), std::system_error);
    bool answered = false;
    const auto work = [] { return SecretStore::Result<void>(); };
    askSecretStore(work, [&](const auto& result) {
      answered = !result && result.error().kind == SecretError::Kind::unavailable;
    });
    EXPECT_FALSE(answered) << "inside the call";
    EXPECT_TRUE(spinUntil([&] { return answered; }));
  }
  std::latch begun(1), last(1);
  queue.post([&] {
    begun.count_down();
    last.wait();
  });
  queue.post([&] { done.clear(); });
  begun.wait();
  EXPECT_FALSE(queue.close(milliseconds(10))) << "did not wait, or waited for ever";
  last.count_down();
  EXPECT_TRUE(queue.close(milliseconds(10'000)));
  const auto dropped = std::make_shared<std::latch>(1);
  queue.post([dropped] { dropped->wait(); });
  EXPECT_EQ(dropped.use_count(), 1) << "went on after its end";
  dropped->count_down();
  EXPECT_EQ(done.size(), 100);
}

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
