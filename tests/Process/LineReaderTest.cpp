#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Values/Utf8.h"
#include "tests/Support/Children.h"
#include "tests/Support/TempDir.h"

#include <algorithm>
#include <cstring>

#include <gmock/gmock.h>
#include <sys/resource.h>

namespace verdo {
namespace {

using namespace test;
using namespace std::chrono_literals;
using testing::ElementsAre;

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
  } cases[] = {
      {"", {}},
      {"\n", {""}},
      {"\r\n\n", {"", ""}},
      {"a\r\nb", {"a", "b"}},
      {"a\nb\n", {"a", "b"}},
      {"a\r\r\n\rb\r", {"a\r", "\rb\r"}},
      {"\xff\xc3\n\xa9\n", {"\xff\xc3", "\xa9"}},
      {{"a\0b\n", 4}, {std::string("a\0b", 3)}},
  };
  for (const auto& [text, lines] : cases) {
    for (std::size_t size = 1; size <= text.size() + 1; ++size) {
      EXPECT_EQ(split(text, size), lines) << text << " in pieces of " << size;
    }
  }
}

TEST(LineSplitter, LosesNothingOfLongLines) {
  Lines lines;
  std::string text;
  for (const std::size_t size : {0, 1, 65534, 65535, 65536, 65537, 300000, 2, 131072, 5}) {
    lines.push_back(std::string(size, static_cast<char>('a' + lines.size())));
    text += lines.back() + "\r\n";
  }
  for (const std::size_t size : {4096, 65536, 1 << 20}) EXPECT_EQ(split(text, size), lines) << size;
}

TEST(LineSplitter, DeliversAnEndlessLineInPiecesOfWholeCharacters) {
  constexpr std::size_t kPiece = 1 << 20;
  // Units whose size does not divide the limit, so that it falls inside one of them.
  for (const std::string unit : {"x€", "😀x", "€"}) {
    LineSplitter splitter;
    std::string block;
    while (block.size() + unit.size() <= kPiece) block += unit;
    std::size_t fed = 0;
    std::size_t got = 0;
    std::size_t longest = 0;
    for (; fed < 2 * kMaxLineBytes + 2 * kPiece; fed += block.size()) {
      const auto room = splitter.space(block.size());
      std::memcpy(room.data(), block.data(), block.size());
      for (const auto line : splitter.advance(block.size())) {
        EXPECT_NE(unit[got % unit.size()] & 0xC0, 0x80) << "inside a character of " << unit;
        longest = std::max(longest, line.size());
        got += line.size();
      }
    }
    EXPECT_EQ(got + splitter.rest().size(), fed);
    EXPECT_GT(got, kMaxLineBytes);
    EXPECT_LE(longest, kMaxLineBytes + kPiece);
  }
}

TEST(LineSplitter, BreaksNoCharacterNextToBrokenBytes) {
  for (const std::string tail : {"😀\x80", "€\x80\x80", "é\x80\x80\x80", "\xf0\x9f", "\xff"}) {
    LineSplitter splitter;
    const auto room = splitter.space(kMaxLineBytes);
    std::memset(room.data(), 'x', kMaxLineBytes);
    std::memcpy(room.data() + kMaxLineBytes - tail.size(), tail.data(), tail.size());
    const auto lines = splitter.advance(kMaxLineBytes);
    ASSERT_EQ(lines.size(), 1u);
    const std::string piece(lines[0].substr(kMaxLineBytes - tail.size() - 1));
    EXPECT_EQ(repairUtf8(piece) + repairUtf8(splitter.rest()), repairUtf8("x" + tail));
  }
}

TEST(LineReader, DeliversUntouchedBytesAndTheUnfinishedLine) {
  const auto child = launchRole({"garbage"});
  EXPECT_THAT(CollectedLines(child->takeStdout()).start().all(), ElementsAre("a\xff"
                                                                             "b\xc3",
                                                                             "\xe2\x82"));
  const auto printing = launchRole({"print", "one\r\ntwo", "", "0"});
  EXPECT_THAT(CollectedLines(printing->takeStdout()).start().all(), ElementsAre("one", "two"));
}

TEST(LineReader, FeedsMoreThanAPipeHoldsWhileTheChildPrints) {
  std::string script;
  for (int i = 0; script.size() < (4u << 20); ++i) script += "line " + std::to_string(i) + "\n";
  const auto child = launchRole({"echo"});
  CollectedLines output(child->takeStdout());
  output.reader().feed(child->takeStdin(), script);
  std::string again;
  for (const auto& line : output.start().all()) again += line + "\n";
  EXPECT_TRUE(again == script);
  EXPECT_EQ(child->wait(), 0);
}

TEST(LineReader, IsNotHeldUpByAChildThatDoesNotRead) {
  const auto descriptors = openDescriptors();
  {
    const auto child = launchRole({"noinput"});
    CollectedLines output(child->takeStdout());
    output.reader().feed(child->takeStdin(), std::string(1 << 20, 'x'));
    EXPECT_TRUE(output.start().waitForCount(1)) << "its output must come all the same";
    child->release();
    EXPECT_THAT(output.all(), ElementsAre("ready"));
  }
  EXPECT_EQ(openDescriptors(), descriptors);
}

// A child may send its output elsewhere and still want the whole of its input.
TEST(LineReader, FeedsAChildThatHasClosedItsOutput) {
  const TempDir directory;
  const std::string script(1 << 20, 's');
  const auto child = launchRole({"closed", "swallow", directory / "input"});
  CollectedLines output(child->takeStdout());
  output.reader().feed(child->takeStdin(), script);
  EXPECT_THAT(output.start().all(), ElementsAre());
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

TEST(LineReader, AbandonsAnOutputThatADescendantKeepsOpen) {
  const auto child = launchRole({"leave", "session", "sleep", "60"});
  CollectedLines output(child->takeStdout());
  const pid_t descendant = grandchildPid(output.start());
  ASSERT_TRUE(output.waitForCount(2));
  child->release();
  EXPECT_FALSE(output.reader().done().waitFor(50ms));
  output.reader().abandon();
  EXPECT_TRUE(output.reader().done().waitFor(5s));
  ::kill(descendant, SIGKILL);
}

TEST(LineReader, CanBeAbandonedWhileItIsFlooded) {
  const auto child = launchRole({"flood", std::to_string(1LL << 50)});
  std::atomic<std::size_t> lines = 0;
  {
    LineReader reader(child->takeStdout(), [&](auto some) { lines += some.size(); });
    reader.start();
    ASSERT_TRUE(eventually([&] { return lines > 10'000; }));
    reader.abandon();
    EXPECT_TRUE(reader.done().waitFor(5s));
  }
  EXPECT_TRUE(eventually([&] { return child->poll() == -SIGPIPE; })) << "the pipe is closed";
}

}  // namespace
}  // namespace verdo
