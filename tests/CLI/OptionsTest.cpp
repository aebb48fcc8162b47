#include "VerdoDriverCLI/Config.h"
#include "VerdoDriverCLI/Options.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

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
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--max-jobs", "0"}, "--max-jobs: '0' is not a whole number from 1 to 1000"},
      {{"--max-jobs", "x"}, "--max-jobs: 'x' is not a whole number from 1 to 1000"},
      {{"--max-jobs", "2.5"}, "--max-jobs: '2.5' is not a whole number from 1 to 1000"},
      {{"--max-jobs", "1001"}, "--max-jobs: '1001' is not a whole number from 1 to 1000"},
      {{"--serve-jobs", "0"}, "--serve-jobs: '0' is not a whole number from 1 to 2147483647"},
      {{"--serve-jobs", "-1"}, "--serve-jobs: '-1' is not a whole number from 1 to 2147483647"},
      {{"--serve-jobs", "99999999999"},
       "--serve-jobs: '99999999999' is not a whole number from 1 to 2147483647"},
      {{"--poll-wait", "soon"}, "--poll-wait: 'soon' is not a number from 0 to 3580 seconds"},
      {{"--poll-wait", ""}, "--poll-wait: '' is not a number from 0 to 3580 seconds"},
      {{"--poll-wait", "-1"}, "--poll-wait: '-1' is not a number from 0 to 3580 seconds"},
      {{"--poll-wait", "3581"}, "--poll-wait: '3581' is not a number from 0 to 3580 seconds"},
      {{"--poll-wait", "nan"}, "--poll-wait: 'nan' is not a number from 0 to 3580 seconds"},
      {{"--idle-exit", "5s"}, "--idle-exit: '5s' is not a number from 0 to 31536000 seconds"},
      {{"--idle-close", "inf"}, "--idle-close: 'inf' is not a number from 0 to 31536000 seconds"},
      {{"--reap-interval", "0"},
       "--reap-interval: '0' is not a number from 0.1 to 31536000 seconds"},
      {{"--color", "sometimes"}, "--color: 'sometimes' is not auto, always or never"},
      {{"--token", "secret"}, "The following arguments were not expected: secret --token"},
      {{"--server"}, "--server: 1 required URL missing"},
      {{"extra"}, "The following argument was not expected: extra"},
      {{"--extra-path", "/dir", "stray"}, "The following argument was not expected: stray"},
      {{"--sweep-all", "--no-sweep"}, "--sweep-all and --no-sweep exclude each other"},
  };
  for (const auto& [arguments, message] : cases) {
    const auto parsed = parse(arguments);
    const auto* ended = std::get_if<cli::Ended>(&parsed);
    ASSERT_TRUE(ended) << testing::PrintToString(arguments);
    EXPECT_EQ(ended->status, 2);
    EXPECT_EQ(ended->text, "verdo-driver: " + message + " (see verdo-driver --help)\n");
  }
}

/// Everything that a command line can set, as texts.
std::map<std::string, std::string> fieldsOf(const cli::Options& options) {
  const auto text = [](const auto& value) { return testing::PrintToString(value); };
  const DriverConfig& config = options.config;
  return {{"server", text(options.server)},
          {"llmBase", text(options.llmBase)},
          {"exec", text(options.exec)},
          {"color", text(options.color)},
          {"extraPathDirs", text(config.extraPathDirs)},
          {"pollWait", text(config.pollWait)},
          {"maxJobs", text(config.maxJobs)},
          {"serveJobs", text(config.serveJobs)},
          {"idleExit", text(config.idleExit)},
          {"idleClose", text(config.idleClose)},
          {"reapInterval", text(config.reapInterval)},
          {"sweepAll", text(config.sweepAll)},
          {"noSweep", text(config.noSweep)},
          {"insecure", text(config.insecure)},
          {"caCertPath", text(config.caCertPath)},
          {"dryRun", text(config.dryRun)},
          {"checkLLM", text(config.checkLLM)},
          {"clientHeader", text(config.clientHeader)},
          {"envFilePath", text(config.envFilePath)}};
}

TEST(Options, LandInTheFieldOfAnother) {
  struct Case {
    std::vector<std::string> arguments;
    std::string field;
    std::string value;
  };
  const Case cases[] = {
      {{"--server", "a"}, "server", "(\"a\")"},
      {{"--llm-base", "a"}, "llmBase", "(\"a\")"},
      {{"--exec", "a 'b c'"}, "exec", "(\"a 'b c'\")"},
      {{"--color", "always"}, "color", "(true)"},
      {{"--color", "never"}, "color", "(false)"},
      {{"--color", "auto"}, "color", "(nullopt)"},
      {{"--extra-path", "a", "--extra-path", "b"}, "extraPathDirs", "{ \"a\", \"b\" }"},
      {{"--poll-wait", "3580"}, "pollWait", "3580"},
      {{"--poll-wait", "0"}, "pollWait", "0"},
      {{"--max-jobs", "1000"}, "maxJobs", "(1000)"},
      {{"--max-jobs", "010"}, "maxJobs", "(10)"},
      {{"--serve-jobs", "2147483647"}, "serveJobs", "(2147483647)"},
      {{"--idle-exit", "0.5"}, "idleExit", "(0.5)"},
      {{"--idle-close", "7"}, "idleClose", "(7)"},
      {{"--reap-interval", "0.1"}, "reapInterval", "(0.1)"},
      {{"--sweep-all"}, "sweepAll", "true"},
      {{"--no-sweep"}, "noSweep", "true"},
      {{"--insecure"}, "insecure", "true"},
      {{"--ca-cert", "a"}, "caCertPath", "(\"a\")"},
      {{"--dry-run"}, "dryRun", "true"},
      {{"--check-llm"}, "checkLLM", "true"},
      {{"--client", "a"}, "clientHeader", "(\"a\")"},
      {{"--env-file", "a"}, "envFilePath", "(\"a\")"},
  };
  for (const auto& row : cases) {
    auto expected = fieldsOf({});
    expected.at(row.field) = row.value;
    EXPECT_EQ(fieldsOf(options(row.arguments)), expected) << testing::PrintToString(row.arguments);
  }
}

TEST(Options, HelpIsWiderThanATerminalOrUnsorted) {
  const auto parsed = parse({"--help"});
  std::istringstream text(std::get<cli::Ended>(parsed).text);
  std::vector<std::string> headings;
  for (std::string line; std::getline(text, line);) {
    EXPECT_LE(line.size(), 80u) << line;
    if (line.ends_with(':')) headings.push_back(line);
  }
  EXPECT_THAT(headings, testing::ElementsAre("Service:", "Jobs:", "LLM:", "Output:"));
}

TEST(Config, SourceOfASettingTakesPrecedenceOverABetterOne) {
  const TempDir directory;
  const auto file = directory.write("driver.env",
                                    "VERDO_SERVER_URL=https://file\nVERDO_DRIVER_TOKEN='file'\n"
                                    "VERDO_LLM_API_KEY=file\nVERDO_LLM_BASE_URL=https://llmfile\n");
  const auto empty = directory.write("empty.env", "VERDO_SERVER_URL=\n");
  struct Case {
    std::vector<std::string> arguments;
    Environment environment;
    Secrets secrets;
    std::string server, token, key, base;
  };
  const std::string dfltBase = "https://api.deepseek.com";
  const Case cases[] = {
      {{"--env-file", empty}, {}, {}, "http://127.0.0.1:8765", "", "", dfltBase},
      {{"--env-file", directory / "none"}, {}, {}, "http://127.0.0.1:8765", "", "", dfltBase},
      {{"--env-file", file}, {}, {}, "https://file", "file", "file", "https://llmfile"},
      {{"--env-file", file},
       {{"VERDO_SERVER_URL", "https://env"}, {"VERDO_LLM_BASE_URL", "https://llmenv"}},
       {"\tenvToken ", "envKey\r\n"},
       "https://env",
       "envToken",
       "envKey",
       "https://llmenv"},
      {{"--env-file", file},
       {{"VERDO_SERVER_URL", ""}},
       {"", " \n"},
       "https://file",
       "file",
       "file",
       "https://llmfile"},
      {{"--env-file", file, "--server", "HTTPS://Option", "--llm-base", "HTTP://LLM"},
       {{"VERDO_SERVER_URL", "https://env"}, {"VERDO_LLM_BASE_URL", "https://llmenv"}},
       {},
       "https://Option",
       "file",
       "file",
       "http://LLM"},
      {{"--env-file", file, "--server", ""},
       {},
       {},
       "https://file",
       "file",
       "file",
       "https://llmfile"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    const auto config = cli::resolveConfig(options(row.arguments), row.environment, row.secrets);
    EXPECT_EQ(config.server, row.server);
    EXPECT_EQ(config.token, row.token);
    EXPECT_EQ(config.llmKey, row.key);
    EXPECT_EQ(config.llmBase, row.base);
  }
}

TEST(Config, TakesASecretWithALineEndInside) {
  const TempDir directory;
  const auto file = directory.write("driver.env", "VERDO_LLM_API_KEY=se\rcret\n");
  const auto failure = [&](const Secrets& secrets) {
    return failureOf([&] { cli::resolveConfig(options({"--env-file", file}), {}, secrets); });
  };
  const std::string rest =
      " holds a control character, such as a line end inside it; copy it again, as one line";
  EXPECT_EQ(failure({"a", ""}), "ValueError: the LLM key" + rest);
  for (const char* token : {"a\nb", "a\r\nb", "a\tb",
                            "a\x7f"
                            "b",
                            "a\x1b"
                            "b"}) {
    EXPECT_EQ(failure({token, "k"}), "ValueError: the driver token" + rest) << token;
  }
  EXPECT_EQ(failure({"grüße +/=", "k"}), "");
}

TEST(Config, ExecutorIsNotTheOneThatIsThereOrNamed) {
  const TempDir directory;
  const ScopedEnv path("PATH", "/nowhere");
  directory.write("verdo-browser", "", std::filesystem::perms{0700});
  const auto execOf = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--env-file", directory / "none"});
    return cli::resolveConfig(options(arguments), {}, {}).execCommand;
  };
  EXPECT_EQ(execOf({}), "ego-browser nodejs");
  EXPECT_EQ(execOf({"--extra-path", directory.path()}), "verdo-browser nodejs");
  EXPECT_EQ(execOf({"--extra-path", directory.path(), "--exec", "own"}), "own");
  EXPECT_EQ(execOf({"--exec", ""}), "");
}

}  // namespace
}  // namespace verdo::test
