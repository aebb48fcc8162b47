#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Values/Utf8.h"
#include "tests/Support/Children.h"
#include "tests/Support/TempDir.h"

#include <algorithm>
#include <cstring>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace test;
using namespace std::chrono_literals;

/// The lines that come out when the text arrives in pieces of this size.
Lines split(std::string_view text, std::size_t pieceSize) {
  LineSplitter splitter;
  Lines result;
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, pieceSize);
    text.remove_prefix(piece.size());
    const auto room = splitter.space(piece.size());
    EXPECT_GE(room.size(), piece.size());
    std::memcpy(room.data(), piece.data(), piece.size());
    for (const auto line : splitter.advance(piece.size())) result.emplace_back(line);
  }
  if (!splitter.rest().empty()) result.emplace_back(splitter.rest());
  return result;
}

TEST(LineSplitter, CutsAtLineEndsWhateverThePieces) {
  const struct {
    std::string_view text;
    Lines lines;
  } cases[] = {{"", {}},
               {"\n", {""}},
               {"\r\n\n", {"", ""}},
               {"a\r\nb\n", {"a", "b"}},
               {"a\r\r\n\rb\r", {"a\r", "\rb\r"}},
               {"\xff\xc3\n\xa9\n", {"\xff\xc3", "\xa9"}},
               {{"a\0b\n", 4}, {std::string("a\0b", 3)}}};
  for (const auto& [text, lines] : cases) {
    for (std::size_t size = 1; size <= text.size() + 1; ++size) {
      EXPECT_EQ(split(text, size), lines) << text << " in pieces of " << size;
    }
  }
}

TEST(LineSplitter, KeepsAnEndlessLineOrBreaksACharacterOfIt) {
  // What ends the piece, and what arrives later.
  const std::pair<std::string, std::string> cases[] = {
      {"😀\x80", ""}, {"€\x80\x80", ""},        {"é\x80\x80\x80", ""},
      {"\xff", ""},   {"\xf0\x9f", "\x98\x80"}, {"\xc3", "\xa9"},
  };
  for (const auto& [tail, later] : cases) {
    constexpr std::size_t kMaxLine = 64;
    LineSplitter splitter(kMaxLine);
    const std::string line = std::string(kMaxLine - tail.size(), 'x') + tail;
    std::copy(line.begin(), line.end(), splitter.space(line.size()).begin());
    const auto lines = splitter.advance(line.size());
    ASSERT_EQ(lines.size(), 1u);
    const std::string piece(lines[0]);
    if (!later.empty()) {
      std::copy(later.begin(), later.end(), splitter.space(later.size()).begin());
      EXPECT_THAT(splitter.advance(later.size()), testing::IsEmpty());
    }
    EXPECT_EQ(repairUtf8(piece) + repairUtf8(splitter.rest()), repairUtf8(line + later));
  }
}

// A child may send its output elsewhere and still want the whole of its input.
TEST(LineReader, FeedsAChildThatHasClosedItsOutput) {
  const TempDir directory;
  const std::string script(1 << 20, 's');
  const auto child = launchRole({"closed", "swallow", directory / "input"});
  CollectedLines output(child->takeStdout());
  output.reader().feed(child->takeStdin(), script);
  EXPECT_THAT(output.start().all(), testing::ElementsAre());
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(directory / "input"); }));
  EXPECT_TRUE(contentOf(directory / "input") == script);
}

TEST(LineReader, FeedsAChildWhoseOutputNeverPauses) {
  const TempDir directory;
  const std::string script(1 << 20, 's');
  const auto child = launchRole({"floodswallow", directory / "input"});
  // Slower than the flood, so that there is always something to read.
  LineReader reader(child->takeStdout(), [](auto) { std::this_thread::sleep_for(1ms); });
  reader.feed(child->takeStdin(), script);
  reader.start();
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(directory / "input"); }));
  EXPECT_TRUE(contentOf(directory / "input") == script);
  child->release();
  EXPECT_TRUE(reader.done().waitFor(10s));
}

}  // namespace
}  // namespace verdo
