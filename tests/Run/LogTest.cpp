#include "VerdoDriverCore/Run/Log.h"
#include "tests/Support/Children.h"

#include <thread>

#include <gmock/gmock.h>
#include <unistd.h>

namespace verdo {
namespace {

using testing::ElementsAre;

/// Everything that is written to standard error by `work`, as lines.
template <typename Work>
test::Lines errorsOf(Work work) {
  Pipe pipe = Pipe::make();
  const UniqueFd before(::dup(STDERR_FILENO));
  ::dup2(pipe.writeEnd.get(), STDERR_FILENO);
  test::CollectedLines lines(std::move(pipe.readEnd));
  lines.start();
  work();
  ::dup2(before.get(), STDERR_FILENO);
  pipe.writeEnd.reset();
  return lines.all();
}

void logEverywhere(LogSink& log) {
  log.info("a");
  log.success("b");
  log.warn("c é");
  log.error("");
}

TEST(StderrLogSink, MarksTheLevels) {
  EXPECT_THAT(errorsOf([] {
                StderrLogSink log;
                logEverywhere(log);
              }),
              ElementsAre("· a", "✓ b", "! c é", "✗ "));
  EXPECT_THAT(errorsOf([] {
                StderrLogSink log(true);
                logEverywhere(log);
              }),
              ElementsAre("\x1b[36m· \x1b[0ma", "\x1b[32m✓ \x1b[0mb", "\x1b[33m! \x1b[0mc é",
                          "\x1b[31m✗ \x1b[0m"));
}

TEST(StderrLogSink, PassesNoCommandsToTheTerminal) {
  EXPECT_THAT(errorsOf([] {
                StderrLogSink(false).warn(
                    "\x1b[2Ja\tb\nc\rd\x7f\b\xc2\x9b"
                    "31m\xc2\xa0");
              }),
              ElementsAre("! \\x1b[2Ja\tb", "c\\x0dd\\x7f\\x08\\x9b31m\xc2\xa0"));
}

TEST(StderrLogSink, KeepsTheLinesOfThreadsApart) {
  const std::string text(3000, 'x');
  const auto lines = errorsOf([&] {
    StderrLogSink log(false);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int n = 0; n < 100; ++n) log.info(text);
      });
    }
    for (auto& thread : threads) thread.join();
  });
  EXPECT_EQ(lines.size(), 400u);
  EXPECT_THAT(lines, testing::Each("· " + text));
}

}  // namespace
}  // namespace verdo
