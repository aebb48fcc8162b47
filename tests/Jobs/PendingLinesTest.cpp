#include "VerdoDriverCore/Jobs/PendingLines.h"

#include <future>

#include <gtest/gtest.h>

namespace verdo {
namespace {

using namespace std::chrono_literals;
using Clock = PendingLines::Clock;

std::future<void> addInBackground(PendingLines& pending, std::string line) {
  return std::async(std::launch::async, [&pending, line] {
    const std::string_view view = line;
    pending.add(std::span(&view, 1));
  });
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
  EXPECT_EQ(third.wait_for(50ms), std::future_status::timeout)
      << "not even an empty line fits any more";
  pending.waitUntilFull(Clock::now() + 1h);
  EXPECT_EQ(pending.take().bytes(), PendingLines::kBatchBytes);
  third.get();
  EXPECT_EQ(pending.take().finish().view(), "{\"lines\": [\"\"]}");
}

}  // namespace
}  // namespace verdo
