#include "VerdoDriverCore/Network/LineBatch.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace verdo {
namespace {

using Lines = std::vector<std::string>;

/// The lines of a body that is split, each piece's apart, and the size of the largest piece.
std::pair<std::vector<Lines>, std::size_t> split(const Lines& lines, std::size_t maxBytes,
                                                 bool cutLines) {
  LineBatch batch;
  for (const auto& line : lines) batch.add(line);
  const ByteBuffer body = std::move(batch).finish();
  std::vector<Lines> pieces;
  std::size_t largest = 0;
  for (auto& piece : LineBatch::split(body.view(), maxBytes, cutLines)) {
    const ByteBuffer text = std::move(piece).finish();
    largest = std::max(largest, text.size());
    pieces.push_back(nlohmann::json::parse(text.view()).at("lines").get<Lines>());
  }
  return {pieces, largest};
}

TEST(LineBatch, SplittingLosesDoublesOrBreaksLines) {
  const std::string tricky = R"(a", "b\", "\" é 😀 \u0041)" + std::string("\t\x01");
  Lines lines;
  for (int i = 0; i < 50; ++i) lines.push_back(tricky + std::to_string(i));
  lines.emplace_back();
  for (std::size_t maxBytes = 100; maxBytes < 1000; ++maxBytes) {
    const auto [pieces, largest] = split(lines, maxBytes, false);
    Lines joined;
    for (const auto& piece : pieces) joined.insert(joined.end(), piece.begin(), piece.end());
    EXPECT_EQ(joined, lines) << maxBytes;
    EXPECT_LE(largest, maxBytes);
  }
  // Too long for any piece: left whole, or cut between characters, escapes and surrogates included.
  std::string smileys;
  for (int i = 0; i < 100; ++i) smileys += "😀\n\"x";
  EXPECT_EQ(split({"a", smileys}, 200, false).first, (std::vector<Lines>{{"a"}, {smileys}}));
  const auto [pieces, largest] = split({smileys}, 200, true);
  EXPECT_LE(largest, 200u);
  std::string joined;
  for (const auto& piece : pieces) {
    for (const auto& line : piece) joined += line;  // nothing became U+FFFD
  }
  EXPECT_EQ(joined, smileys);
}

}  // namespace
}  // namespace verdo
