#include "VerdoDriverCore/Jobs/PendingLines.h"
#include "VerdoDriverCore/Values/JsonReader.h"

#include <atomic>
#include <future>
#include <thread>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::chrono_literals;
using Clock = PendingLines::Clock;

std::string bodyOf(LineBatch batch) {
  const std::size_t announced = batch.bytes();
  const ByteBuffer body = std::move(batch).finish();
  EXPECT_EQ(body.size(), announced);
  return std::string(body.view());
}

std::future<void> addInBackground(PendingLines& pending, std::string line) {
  return std::async(std::launch::async, [&pending, line] {
    const std::string_view view = line;
    pending.add(std::span(&view, 1));
  });
}

bool isBlocked(const std::future<void>& work) {
  return work.wait_for(50ms) == std::future_status::timeout;
}

TEST(PendingLines, FillsABatchToTheLastByte) {
  const std::size_t frame = LineBatch().bytes() + 2;  // with the quotes of one line
  PendingLines pending;
  addInBackground(pending, std::string(PendingLines::kBatchBytes - frame - 5, 'a')).get();
  addInBackground(pending, "b").get();  // five bytes with separator and quotes
  const auto begin = Clock::now();
  pending.waitUntilFull(begin + 20ms);
  EXPECT_GE(Clock::now(), begin + 20ms);
  auto third = addInBackground(pending, "");
  EXPECT_TRUE(isBlocked(third)) << "not even an empty line fits any more";
  pending.waitUntilFull(Clock::now() + 1h);
  EXPECT_EQ(pending.take().bytes(), PendingLines::kBatchBytes);
  third.get();
  EXPECT_EQ(bodyOf(pending.take()), "{\"lines\": [\"\"]}");
}

TEST(PendingLines, KeepsTheOrderOverManyBatches) {
  constexpr int kCount = 20'000;
  PendingLines pending(4096);
  std::atomic<bool> ended = false;
  std::thread producer([&] {
    for (int i = 0; i < kCount; i += 2) {
      const std::string texts[] = {std::to_string(i), std::to_string(i + 1)};
      const std::string_view lines[] = {texts[0], texts[1]};
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
      EXPECT_EQ(*line.asString(), std::to_string(next++));
    }
    pending.recycle(std::move(body));
  }
  producer.join();
  EXPECT_EQ(next, kCount);
}

TEST(PendingLines, LetsWaitingProducersGoWhenClosed) {
  PendingLines pending(50);
  addInBackground(pending, std::string(60, 'x')).get();
  auto one = addInBackground(pending, "one");
  auto two = addInBackground(pending, "two");
  EXPECT_TRUE(isBlocked(one));
  pending.close();
  one.get();
  two.get();
  addInBackground(pending, "dropped").get();
  EXPECT_EQ(pending.take().bytes(), LineBatch().bytes() + 62);
  EXPECT_TRUE(pending.take().empty());
}

}  // namespace
}  // namespace verdo
