#include "VerdoDriver/App/FileLog.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/FullDisk.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/TempDir.h"

#include <algorithm>
#include <set>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/file.h>

namespace verdo::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr std::size_t kAround = 21;  // bytes of the stamp, its blank and the line end

/// The file's lines without their stamps; a line that has none is reported.
std::vector<std::string> linesOf(const std::string& path) {
  std::ifstream content(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(content, line);) {
    EXPECT_THAT(line,
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} .*"));
    lines.push_back(line.substr(std::min(line.size(), kAround - 1)));
  }
  return lines;
}

TEST(FileLog, RotatesElsewhereOrShowsItselfToOthersOrWritesOnIntoAFileThatIsGone) {
  const TempDir dir;
  FileLog log(dir / "a/b", 2 * (kAround + 1), 3);  // two lines exactly
  for (const char* line : {"0", "1", "2", "3", "4", "5", "6", "7", "8"}) log.write(line);
  EXPECT_TRUE(log.flush(20s));
  EXPECT_THAT(linesOf(log.path()), ElementsAre("8"));
  EXPECT_THAT(linesOf(log.path() + ".1"), ElementsAre("6", "7"));
  EXPECT_THAT(linesOf(log.path() + ".3"), ElementsAre("2", "3"));
  EXPECT_FALSE(fs::exists(log.path() + ".4"));
  EXPECT_EQ(fs::status(dir / "a").permissions(), fs::perms{0700});
  EXPECT_EQ(fs::status(log.path()).permissions(), fs::perms{0600});
  for (const auto& gone : {log.path(), dir / "a"}) {
    fs::remove_all(gone);
    log.write("+");
    EXPECT_TRUE(log.flush(20s));
    EXPECT_THAT(linesOf(log.path()), ElementsAre("+")) << gone;
  }
}

TEST(FileLog, TearsLinesOrFloodsTheSystemLogOnAFullDisk) {
  const TempDir dir;
  const AppLogCapture appLog;
  FileLog log(dir.path());
  log.write("fits");
  EXPECT_TRUE(log.flush(20s));
  {
    const FullDisk disk(fs::file_size(log.path()) + 10);  // the beginning of one more line
    log.write("does not fit");
    log.write("does not fit either");
    EXPECT_TRUE(log.flush(20s));
  }
  log.write("fits again");
  EXPECT_TRUE(log.flush(20s));
  EXPECT_THAT(linesOf(log.path()), ElementsAre("fits", "fits again"));
  EXPECT_THAT(appLog.lines(), ElementsAre("verdo.lifecycle [FileLog] write failed: write " +
                                          log.path() + ": File too large"));
}

TEST(FileLog, LetsATextPassForOtherLines) {
  const TempDir dir;
  {
    FileLog log(dir.path());
    log.error("job 1: said\r\n2026-01-01 00:00:00 » token forgotten\x1b[2J\u2028\u202e\n");
  }
  EXPECT_TRUE(eventually([] { return std::ranges::count(threadNames(), "verdo-file-log") == 0; }));
  EXPECT_EQ(contentOf(dir / "driver.log").substr(kAround - 1),
            "✗ job 1: said\n                    2026-01-01 00:00:00 » token forgotten\\x1b[2J"
            "\\u2028\\u202e\n");
}

TEST(FileLog, HoldsTheProgramUpOrLosesLinesUnnoticed) {
  const TempDir dir;
  FileLog log(dir.path(), FileLog::kMaxBytes, FileLog::kKeep, 1s);
  log.write("first");
  ASSERT_TRUE(log.flush(20s));
  // Another process has its turn, and does not end it.
  const UniqueFd other(::open(log.path().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  // Whether or not the log's thread has taken this one yet, there is room for three of the next.
  log.write("second");
  const std::string line(FileLog::kMaxWaiting / 4, 'x');
  constexpr int kLines = 7;
  for (int i = 0; i < kLines; ++i) log.write(line);
  EXPECT_FALSE(log.flush(0ms)) << "held up";
  EXPECT_TRUE(log.flush(20s));
  EXPECT_TRUE(linesOf(log.path()).back().starts_with("! ")) << "no line follows at the end";
  // The next turn of the other; what was written by now does not count as waiting.
  ASSERT_EQ(::flock(other.get(), LOCK_UN), 0);
  log.write("short");
  ASSERT_TRUE(log.flush(20s));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  const std::string later(line.size(), 'y');
  for (int i = 0; i < 3; ++i) log.write(later);
  ASSERT_TRUE(log.flush(20s));
  const auto lines = linesOf(log.path());
  EXPECT_EQ(std::ranges::count(lines, later), 3);
  std::ptrdiff_t lost = 0;
  for (const auto& found : lines) {
    int missing = 0;  // told once for each stretch
    if (std::sscanf(found.c_str(), "! %d lines are missing here", &missing) == 1) lost += missing;
  }
  EXPECT_EQ(lost, kLines - 3);
  EXPECT_EQ(std::ranges::count(lines, line), 3);
}

TEST(FileLog, TearsOrLosesLinesOfSeveralThreadsAndInstances) {
  constexpr std::uintmax_t kMaxBytes = 4096;
  const TempDir dir;
  FileLog instances[] = {FileLog(dir.path(), kMaxBytes, 100, 20s),
                         FileLog(dir.path(), kMaxBytes, 100, 20s)};
  std::multiset<std::string> expected;
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    std::vector<std::string> lines;
    for (int i = 0; i < 200; ++i) lines.push_back(fmt::format("{}-{}-{:->20}", thread, i, "end"));
    expected.insert(lines.begin(), lines.end());
    threads.emplace_back([&log = instances[thread % 2], lines] {
      for (const auto& line : lines) log.write(line);
    });
  }
  threads.clear();
  for (auto& log : instances) EXPECT_TRUE(log.flush(20s));
  std::multiset<std::string> found;
  for (const auto& file : fs::directory_iterator(dir.path())) {
    for (const auto& line : linesOf(file.path())) found.insert(line);
    EXPECT_LE(file.file_size(), kMaxBytes);
    // Two rotations for one overflow would leave a file that is nearly empty.
    EXPECT_TRUE(file.path().extension() == ".log" || file.file_size() > kMaxBytes - 60);
  }
  EXPECT_EQ(found, expected);
}

}  // namespace
}  // namespace verdo::test
