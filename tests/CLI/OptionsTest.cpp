#include "VerdoDriverCLI/Options.h"
#include "VerdoDriverCore/Contract/EnvFile.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::variant<cli::Options, cli::Ended> parse(std::vector<std::string> arguments) {
  std::vector<const char*> argv{"verdo-driver"};
  for (const auto& argument : arguments) argv.push_back(argument.c_str());
  return cli::parseCommandLine(static_cast<int>(argv.size()), argv.data());
}

cli::Options options(std::vector<std::string> arguments) {
  auto parsed = parse(std::move(arguments));
  if (const auto* ended = std::get_if<cli::Ended>(&parsed)) ADD_FAILURE() << ended->text;
  return std::get<cli::Options>(std::move(parsed));
}

TEST(Options, NonsenseIsAccepted) {
  const std::vector<std::vector<std::string>> cases{
      {"--max-jobs", "0"},
      {"--max-jobs", "x"},
      {"--max-jobs", "1001"},
      {"--serve-jobs", "0"},
      {"--serve-jobs", "-1"},
      {"--serve-jobs", "99999999999"},
      {"--poll-wait", "-1"},
      {"--poll-wait", "3601"},
      {"--poll-wait", "nan"},
      {"--idle-exit", "-0.1"},
      {"--idle-close", "inf"},
      {"--reap-interval", "0"},
      {"--color", "sometimes"},
      {"--token", "secret"},
      {"--server"},
      {"extra"},
      {"--sweep-all", "--no-sweep"},
  };
  for (const auto& arguments : cases) {
    const auto parsed = parse(arguments);
    const auto* ended = std::get_if<cli::Ended>(&parsed);
    ASSERT_TRUE(ended) << testing::PrintToString(arguments);
    EXPECT_EQ(ended->status, 2);
    EXPECT_THAT(ended->text, testing::MatchesRegex("verdo-driver: [^\n]+\n"));
  }
}

TEST(Options, SourceOfASettingTakesPrecedenceOverABetterOne) {
  const TempDir directory;
  const auto file = directory.write("driver.env",
                                    "VERDO_SERVER_URL=https://file\nVERDO_DRIVER_TOKEN='file'\n"
                                    "VERDO_LLM_API_KEY=file\nVERDO_LLM_BASE_URL=https://llmfile\n");
  const auto empty = directory.write("empty.env", "VERDO_SERVER_URL=\n");
  struct Case {
    std::vector<std::string> arguments;
    Environment environment;
    std::string server, token, key, base;
  };
  const std::string dfltBase = "https://api.deepseek.com";
  const Case cases[] = {
      {{"--env-file", empty}, {}, "http://127.0.0.1:8765", "", "", dfltBase},
      {{"--env-file", directory / "none"}, {}, "http://127.0.0.1:8765", "", "", dfltBase},
      {{"--env-file", file}, {}, "https://file", "file", "file", "https://llmfile"},
      {{"--env-file", file},
       {{"VERDO_SERVER_URL", "https://env"},
        {"VERDO_DRIVER_TOKEN", "env"},
        {"VERDO_LLM_API_KEY", "env"},
        {"VERDO_LLM_BASE_URL", "https://llmenv"}},
       "https://env",
       "env",
       "env",
       "https://llmenv"},
      {{"--env-file", file},
       {{"VERDO_SERVER_URL", ""}, {"VERDO_DRIVER_TOKEN", ""}, {"VERDO_LLM_API_KEY", ""}},
       "https://file",
       "file",
       "file",
       "https://llmfile"},
      {{"--env-file", file, "--server", "HTTPS://Option", "--llm-base", "HTTP://LLM"},
       {{"VERDO_SERVER_URL", "https://env"}, {"VERDO_LLM_BASE_URL", "https://llmenv"}},
       "https://Option",
       "file",
       "file",
       "http://LLM"},
      {{"--env-file", file, "--server", ""}, {}, "https://file", "file", "file", "https://llmfile"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    const auto config = cli::resolveConfig(options(row.arguments), row.environment);
    EXPECT_EQ(config.server, row.server);
    EXPECT_EQ(config.token, row.token);
    EXPECT_EQ(config.llmKey, row.key);
    EXPECT_EQ(config.llmBase, row.base);
  }
}

}  // namespace
}  // namespace verdo::test
