#include "VerdoDriverCore/Network/LineBatch.h"
#include "VerdoDriverCore/Values/PyJSON.h"

#include <gmock/gmock.h>

namespace verdo {
namespace {

std::string finished(LineBatch batch) {
  const std::size_t announced = batch.bytes();
  const ByteBuffer body = std::move(batch).finish();
  EXPECT_EQ(body.size(), announced);
  return std::string(body.view());
}

TEST(LineBatch, IsABodyAtEveryStage) {
  EXPECT_EQ(finished(LineBatch()), "{\"lines\": []}");
  LineBatch batch(ByteBuffer("old content"));
  batch.add("a \"b\"");
  EXPECT_FALSE(batch.empty());
  batch.add("");
  batch.add("é\xff");
  EXPECT_EQ(finished(std::move(batch)), "{\"lines\": [\"a \\\"b\\\"\", \"\", \"\\u00e9\\ufffd\"]}");
}

TEST(LineBatch, TakesTheLastLineBack) {
  LineBatch batch;
  const std::size_t none = batch.bytes();
  batch.add("a");
  batch.truncate(none);
  EXPECT_TRUE(batch.empty());
  batch.add("b");
  const std::size_t one = batch.bytes();
  batch.add(std::string(100'000, 'c'));
  batch.truncate(one);
  batch.add("d");
  EXPECT_EQ(finished(std::move(batch)), "{\"lines\": [\"b\", \"d\"]}");
}

// A long line is escaped in pieces; where they meet must not show.
TEST(LineBatch, EscapesALongLineLikeAShortOne) {
  for (const std::string piece :
       {"é", "€", "😀", "😀\x80", "€\x80\x80", "\x80", "\xf0\x9f\x98", "\"\n"}) {
    for (std::size_t shift = 0; shift < 6; ++shift) {
      std::string line(shift, 'x');
      while (line.size() < 300'000) line += piece;
      LineBatch batch;
      batch.add(line);
      ASSERT_TRUE(finished(std::move(batch)) == "{\"lines\": [" + PyJSON::text(line) + "]}")
          << testing::PrintToString(piece) << " shifted by " << shift;
    }
  }
}

}  // namespace
}  // namespace verdo
