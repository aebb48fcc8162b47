#include "VerdoDriverCLI/Config.h"
#include "VerdoDriverCLI/Options.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/TempDir.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace verdo::test {
namespace {

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

TEST(Options, NonsenseIsAcceptedOrNotExplained) {
  const char* const lanes = "a whole number from 1 to 1000";
  const char* const jobs = "a whole number from 1 to 2147483647";
  const char* const poll = "a number from 0 to 3580 seconds";
  const char* const year = "a number from 0 to 31536000 seconds";
  const struct {
    const char* option;
    const char* value;
    const char* accepted;
  } values[] = {
      {"--max-jobs", "0", lanes},
      {"--max-jobs", "2.5", lanes},
      {"--max-jobs", "1001", lanes},
      {"--serve-jobs", "0", jobs},
      {"--serve-jobs", "99999999999", jobs},
      {"--poll-wait", "", poll},
      {"--poll-wait", "-1", poll},
      {"--poll-wait", "3581", poll},
      {"--poll-wait", "nan", poll},
      {"--idle-exit", "5s", year},
      {"--idle-close", "inf", year},
      {"--reap-interval", "0", "a number from 0.1 to 31536000 seconds"},
      {"--color", "sometimes", "auto, always or never"},
  };
  std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--token", "secret"}, "The following arguments were not expected: secret --token"},
      {{"--server"}, "--server: 1 required URL missing"},
      {{"--extra-path", "/dir", "stray"}, "The following argument was not expected: stray"},
      {{"--sweep-all", "--no-sweep"}, "--sweep-all and --no-sweep exclude each other"},
  };
  for (const auto& [option, value, accepted] : values) {
    cases.push_back({{option, value}, fmt::format("{}: '{}' is not {}", option, value, accepted)});
  }
  for (const auto& [arguments, message] : cases) {
    const auto parsed = parse(arguments);
    const auto* ended = std::get_if<cli::Ended>(&parsed);
    ASSERT_TRUE(ended) << testing::PrintToString(arguments);
    EXPECT_EQ(ended->status, 2);
    EXPECT_EQ(ended->text, "verdo-driver: " + message + " (see verdo-driver --help)\n");
  }
}

TEST(Options, LandInTheFieldOfAnother) {
  const auto given =
      options({"--server",    "a",      "--llm-base",   "b",   "--exec",          "c 'd e'",
               "--color",     "always", "--extra-path", "f",   "--extra-path",    "g",
               "--poll-wait", "3580",   "--max-jobs",   "010", "--serve-jobs",    "2147483647",
               "--idle-exit", "0.5",    "--idle-close", "7",   "--reap-interval", "0.1",
               "--ca-cert",   "h",      "--client",     "i",   "--env-file",      "j"});
  EXPECT_EQ(given.server, "a");
  EXPECT_EQ(given.llmBase, "b");
  EXPECT_EQ(given.exec, "c 'd e'");
  EXPECT_EQ(given.color, true);
  EXPECT_EQ(options({"--color", "never"}).color, false);
  EXPECT_EQ(options({"--color", "auto"}).color, std::nullopt);
  const DriverConfig& config = given.config;
  EXPECT_THAT(config.extraPathDirs, testing::ElementsAre("f", "g"));
  EXPECT_EQ(config.pollWait, 3580);
  EXPECT_EQ(config.maxJobs, 10);
  EXPECT_EQ(config.serveJobs, 2147483647);
  EXPECT_EQ(config.idleExit, 0.5);
  EXPECT_EQ(config.idleClose, 7);
  EXPECT_EQ(config.reapInterval, 0.1);
  EXPECT_EQ(config.caCertPath, "h");
  EXPECT_EQ(config.clientHeader, "i");
  EXPECT_EQ(config.envFilePath, "j");
  const std::pair<const char*, bool DriverConfig::*> flags[] = {
      {"--sweep-all", &DriverConfig::sweepAll}, {"--no-sweep", &DriverConfig::noSweep},
      {"--insecure", &DriverConfig::insecure},  {"--dry-run", &DriverConfig::dryRun},
      {"--check-llm", &DriverConfig::checkLLM},
  };
  for (const auto& [option, itsField] : flags) {
    for (const auto& [other, field] : flags) {
      EXPECT_EQ(options({option}).config.*field, field == itsField) << option << other;
    }
    EXPECT_FALSE(config.*itsField);
  }
}

TEST(Config, SourceOfASettingTakesPrecedenceOverABetterOne) {
  const TempDir directory;
  const auto file = directory.write("driver.env",
                                    "VERDO_SERVER_URL=https://file\nVERDO_DRIVER_TOKEN='file'\n"
                                    "VERDO_LLM_API_KEY=file\nVERDO_LLM_BASE_URL=https://llmfile\n");
  const auto empty = directory.write("empty.env", "VERDO_SERVER_URL=\n");
  const Environment variables{{"VERDO_SERVER_URL", "https://env"},
                              {"VERDO_LLM_BASE_URL", "https://llmenv"}};
  const struct {
    std::vector<std::string> arguments;
    Environment environment;
    Secrets secrets;
    std::string settings;  // server, token, key, base
  } cases[] = {
      {{"--env-file", empty}, {}, {}, "http://127.0.0.1:8765   https://api.deepseek.com"},
      {{"--env-file", file}, {}, {}, "https://file file file https://llmfile"},
      {{"--env-file", file},
       variables,
       {"\tenvToken ", "envKey\r\n"},
       "https://env envToken envKey https://llmenv"},
      {{"--env-file", file, "--server", ""},
       {{"VERDO_SERVER_URL", ""}},
       {"", " \n"},
       "https://file file file https://llmfile"},
      {{"--env-file", file, "--server", "HTTPS://Option", "--llm-base", "HTTP://LLM"},
       variables,
       {},
       "https://Option file file http://LLM"},
  };
  for (const auto& row : cases) {
    const auto config = cli::resolveConfig(options(row.arguments), row.environment, row.secrets);
    EXPECT_EQ(
        fmt::format("{} {} {} {}", config.server, config.token, config.llmKey, config.llmBase),
        row.settings);
  }
}

TEST(Config, TakesASecretWithALineEndInside) {
  const TempDir directory;
  const auto file = directory.write("driver.env", "VERDO_LLM_API_KEY=se\rcret\n");
  const std::string rest =
      " holds a control character, such as a line end inside it; copy it again, as one line";
  const std::pair<Secrets, std::string> cases[] = {
      {{"a", ""}, "ValueError: the LLM key" + rest},
      {{"a\r\nb", "k"}, "ValueError: the driver token" + rest},
      {{"a\x7f", "k"}, "ValueError: the driver token" + rest},
      {{"grüße +/=", "k"}, ""},
  };
  for (const auto& [secrets, refusal] : cases) {
    EXPECT_EQ(failureOf([&] { cli::resolveConfig(options({"--env-file", file}), {}, secrets); }),
              refusal);
  }
}

}  // namespace
}  // namespace verdo::test
