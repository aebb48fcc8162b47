#include "VerdoDriverCore/Run/Log.h"
#include "VerdoDriverCore/Run/Runner.h"
#include "VerdoDriverCore/Run/SpacePattern.h"
#include "tests/Support/Children.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/ScopedEnv.h"

#include <gmock/gmock.h>
#include <unistd.h>

namespace verdo {
namespace {

using namespace test;
using testing::ElementsAre;

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
  // The last two cost little at one place where a match may begin, and much at a thousand.
  for (const char* pattern : {"^(a+)+$", "^(a|aa)+$", "(.*a){20}b", "(?:(?:a*)*)*b",
                              "(?:a|a|a|a){8}[bc]", "(?:a|a|a|a){4}[bc]"}) {
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
  EXPECT_THAT(lines.all(), ElementsAre("! \\x1b[2J\tb", "  c\\x0dd\\x7f\\x08\\x9b\xef\xbf\xbd é",
                                       "\x1b[31m✗ \x1b[0ma"));
}

TEST(DriverRunner, GivesExecutorsAPathButNoSecrets) {
  const ScopedEnv token("VERDO_DRIVER_TOKEN", "secret");
  const ScopedEnv key("VERDO_LLM_API_KEY", "secret");
  const ScopedEnv kept("VERDO_SERVER_URL", "http://x");
  const auto environment = [](std::optional<std::string> path, const std::string& execPath,
                              const std::vector<std::string>& extra) {
    const ScopedEnv variable("PATH", path);
    return DriverRunner::childEnvironment(execPath, extra);
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
