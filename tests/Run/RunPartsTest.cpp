#include "VerdoDriverCore/Run/Preparation.h"
#include "VerdoDriverCore/Run/Runner.h"
#include "VerdoDriverCore/Run/SpacePattern.h"
#include "VerdoDriverCore/Run/StderrLogSink.h"
#include "tests/Support/Children.h"
#include "tests/Support/ScopedEnv.h"

#include <cstdio>

#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

namespace verdo {
namespace {

using namespace test;

TEST(SpacePattern, SpeaksPerlAndPython) {
  const std::pair<const char*, const char*> found[] = {
      {"b+", "abbc"},       {"(?i)^ABC$", "abc"}, {"(?P<n>\\w+)-(?P=n)", "ab-ab"},
      {"^\\w+.$", "größé"}, {"a(?=b)", "ab"},     {SpacePattern::kDefault, "u42-x"},
      {"x", "\xffx"}};
  for (const auto& [pattern, name] : found) {
    EXPECT_TRUE(SpacePattern(pattern).isFoundIn(name)) << pattern;
  }
  EXPECT_FALSE(SpacePattern("(?<!x)y").isFoundIn("xy"));
  EXPECT_FALSE(SpacePattern().isFoundIn("my u1-x"));
}

TEST(SpacePattern, GivesUpOnAHopelessSearch) {
  const auto begin = std::chrono::steady_clock::now();
  const std::string name(SpacePattern::kMaxName - 1, 'a');
  // The last costs little at one place where a match may begin, and much at a thousand.
  for (const char* pattern : {"^(a+)+$", "(?:(?:a*)*)*b", "(?:a|a|a|a){8}[bc]"}) {
    EXPECT_FALSE(SpacePattern(pattern).isFoundIn(name + "!")) << pattern;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_TRUE(SpacePattern("!$").isFoundIn(name + "!"));
  EXPECT_FALSE(SpacePattern("a").isFoundIn(name + "!!")) << "longer than any name";
}

TEST(StderrLogSink, PassesCommandsToTheTerminalOrForgesAnEntryOrHidesTheLevel) {
  Pipe pipe = Pipe::make();
  const UniqueFd before(::dup(STDERR_FILENO));
  ::dup2(pipe.writeEnd.get(), STDERR_FILENO);
  CollectedLines lines(std::move(pipe.readEnd));
  lines.start();
  StderrLogSink(false).warn("\x1b[2J\tb\nc\rd\x7f\b\xc2\x9b\x9b é");
  StderrLogSink(true).error("a");
  ::dup2(before.get(), STDERR_FILENO);
  pipe.writeEnd.reset();
  EXPECT_THAT(lines.all(),
              testing::ElementsAre("! \\x1b[2J\tb", "  c\\x0dd\\x7f\\x08\\x9b\xef\xbf\xbd é",
                                   "\x1b[31m✗ \x1b[0ma"));
}

TEST(StderrLogSink, HoldsTheDriverUpForEverOrHidesThatLinesAreMissing) {
  Pipe pipe = Pipe::make();
  const UniqueFd before(::dup(STDERR_FILENO));
  ::dup2(pipe.writeEnd.get(), STDERR_FILENO);
  const std::string line(10'000, 'x');  // goes out in three parts
  StderrLogSink sink(false, std::chrono::milliseconds(50));
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) sink.info(line);  // a pipe holds five and a third
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  CollectedLines lines(std::move(pipe.readEnd));
  lines.start();
  lines.waitForCount(5);
  while (::poll(nullptr, 0, 10) == 0 && lines.now().back() != "· the end") sink.info("the end");
  ::dup2(before.get(), STDERR_FILENO);
  pipe.writeEnd.reset();
  int seen = 0;
  int missing = 0;
  for (const auto& text : lines.all()) {
    if (text == "· " + line) ++seen;
    int lost = 0;
    if (std::sscanf(text.c_str(), "! %d lines are missing here", &lost) == 1) missing += lost;
  }
  EXPECT_GE(seen, 5);
  EXPECT_EQ(seen + missing, 1000);
}

TEST(DriverRunner, GivesExecutorsAPathButNoSecrets) {
  const ScopedEnv token("VERDO_DRIVER_TOKEN", "secret"), key("VERDO_LLM_API_KEY", "secret");
  const ScopedEnv kept("VERDO_SERVER_URL", "http://x");
  const auto environment = [](std::optional<std::string> path, const std::string& execPath,
                              const std::vector<std::string>& extra) {
    const ScopedEnv variable("PATH", path);
    return executorEnvironment(execPath, extra);
  };
  const Environment given =
      environment("/usr/bin:/a", "/opt/bin/x", {"/a", "", "/opt/bin", "/a", "/b"});
  EXPECT_EQ(given.at("PATH"), "/opt/bin:/a:/b:/usr/bin:/a");
  EXPECT_EQ(given.at("VERDO_SERVER_URL"), "http://x");
  EXPECT_FALSE(given.contains("VERDO_DRIVER_TOKEN") || given.contains("VERDO_LLM_API_KEY"));
  EXPECT_EQ(environment({}, "/opt/x", {}).at("PATH"), "/opt:/usr/local/bin:/usr/bin:/bin");
  EXPECT_EQ(environment("/bin", "x", {}).at("PATH"), "/bin");
}

}  // namespace
}  // namespace verdo
