#include "LocalService/ThreadCache.h"
#include "VerdoDriverCore/System/Sync.h"
#include "tests/Support/Leaks.h"

#include <latch>
#include <thread>

#include <gtest/gtest.h>

namespace verdo::test {
namespace {

TEST(ThreadCache, KeepsTheThreadsOfABurst) {
  std::thread([] {}).join();  // with it comes a sanitizer's own thread
  const auto before = threadNames().size();
  constexpr int kTasks = 20;
  local::ThreadCache cache(std::chrono::milliseconds(50));
  std::latch together(kTasks);
  for (int i = 0; i < kTasks; ++i) cache.run([&] { together.arrive_and_wait(); });
  EXPECT_TRUE(eventually([&] { return threadNames().size() <= before; }));

  Event again;
  cache.run([&] { again.set(); });
  EXPECT_TRUE(again.waitFor(std::chrono::seconds(10)));
}

}  // namespace
}  // namespace verdo::test
