#include "VerdoDriverCore/Jobs/PendingLines.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "tests/Support/Children.h"

#include <atomic>
#include <future>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::chrono_literals;
using Clock = PendingLines::Clock;

void addOne(PendingLines& pending, std::string_view line) { pending.add(std::span(&line, 1)); }

std::string bodyOf(LineBatch batch) { return std::string(std::move(batch).finish().view()); }

std::future<void> addInBackground(PendingLines& pending, std::string line) {
  return std::async(std::launch::async, [&pending, line] { addOne(pending, line); });
}

bool isBlocked(const std::future<void>& work) {
  return work.wait_for(50ms) == std::future_status::timeout;
}

TEST(PendingLines, FillsABatchToTheLastByte) {
  const std::size_t frame = LineBatch().bytes() + 2;  // with the quotes of one line
  PendingLines pending;
  addOne(pending, std::string(PendingLines::kBatchBytes - frame - 5, 'a'));
  addOne(pending, "b");  // five bytes with separator and quotes
  auto third = addInBackground(pending, "");
  EXPECT_TRUE(isBlocked(third)) << "not even an empty line fits any more";
  pending.waitUntilFull(Clock::now() + 1h);
  EXPECT_EQ(pending.take().bytes(), PendingLines::kBatchBytes);
  third.get();
  EXPECT_EQ(bodyOf(pending.take()), "{\"lines\": [\"\"]}");
}

TEST(PendingLines, GivesALongerLineABatchOfItsOwn) {
  PendingLines pending(100);
  addOne(pending, "first");
  auto adding = addInBackground(pending, std::string(500, 'x'));
  EXPECT_TRUE(isBlocked(adding));
  EXPECT_EQ(bodyOf(pending.take()), "{\"lines\": [\"first\"]}");
  adding.get();
  adding = addInBackground(pending, "last");
  EXPECT_TRUE(isBlocked(adding));
  EXPECT_EQ(pending.take().bytes(), LineBatch().bytes() + 502);
  adding.get();
  EXPECT_EQ(bodyOf(pending.take()), "{\"lines\": [\"last\"]}");
}

TEST(PendingLines, WaitsForADeadlineWhenTheBatchDoesNotFill) {
  PendingLines pending;
  addOne(pending, "x");
  const auto begin = Clock::now();
  pending.waitUntilFull(begin + 30ms);
  EXPECT_GE(Clock::now() - begin, 30ms);
  pending.waitUntilFull(begin);
}

TEST(PendingLines, KeepsTheOrderOverManyBatches) {
  constexpr int kCount = 20'000;
  PendingLines pending(4096);
  std::atomic<bool> ended = false;
  std::thread producer([&] {
    for (int i = 0; i < kCount;) {
      std::vector<std::string> texts;
      for (int n = 0; n < 7 && i < kCount; ++n) texts.push_back(std::to_string(i++));
      const std::vector<std::string_view> lines(texts.begin(), texts.end());
      pending.add(lines);
    }
    ended = true;
  });
  int next = 0;
  for (bool last = false; !last;) {
    last = ended;
    pending.waitUntilFull(Clock::now() + 1ms);
    ByteBuffer body = pending.take().finish();
    EXPECT_LE(body.size(), 4096u);
    const JV batch = parseJson(body.view());
    for (const JV& line : *batch.find("lines")->asArray()) {
      ASSERT_EQ(*line.asString(), std::to_string(next));
      ++next;
    }
    pending.recycle(std::move(body));
  }
  producer.join();
  EXPECT_EQ(next, kCount);
}

TEST(PendingLines, LetsWaitingProducersGoWhenClosed) {
  PendingLines pending(50);
  addOne(pending, std::string(60, 'x'));
  auto one = addInBackground(pending, "one");
  auto two = addInBackground(pending, "two");
  EXPECT_TRUE(isBlocked(one));
  pending.close();
  one.get();
  two.get();
  addOne(pending, "dropped");
  EXPECT_EQ(pending.take().bytes(), LineBatch().bytes() + 62);
  EXPECT_TRUE(pending.take().empty());
}

}  // namespace
}  // namespace verdo
