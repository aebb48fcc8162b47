#include "VerdoDriverCLI/Options.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/EnvFile.h"
#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Values/Url.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace verdo::cli {
namespace {

constexpr int kUsageError = 2;
constexpr double kLongestPoll = 3580;  // seconds; with its margin an hour, the limit of a request
constexpr double kYear = 365.0 * 24 * 3600;
constexpr int kMostLanes = 1000;

const char* const kFooter =
    "The driver token comes from VERDO_DRIVER_TOKEN and the LLM key from VERDO_LLM_API_KEY, in "
    "the\n"
    "environment or in the env file (~/.config/verdo/driver.env, chmod 600).\n\n"
    "Exit status: 0 done, 1 server unreachable, 2 bad configuration or usage, 3 token revoked,\n"
    "6 driver out of date, 7 LLM key rejected, 127 executor not found, 130 stopped.";

/// A number within the range; not-a-number, which no comparison rules out, is not.
CLI::Validator between(double least, double most) {
  return CLI::Range(least, most) & CLI::Validator(
                                       [](std::string& text) {
                                         double value = 0;
                                         const bool number = CLI::detail::lexical_cast(text, value);
                                         return number && !std::isnan(value)
                                                    ? std::string()
                                                    : "Value " + text + " is not a number";
                                       },
                                       "");
}

void define(CLI::App& app, Options& options, std::string& color) {
  DriverConfig& config = options.config;
  const auto seconds = between(0.0, kYear);
  const auto count = CLI::Range(1, std::numeric_limits<int>::max());
  app.add_option("--server", options.server, "Base URL of the service")->type_name("URL");
  app.add_option("--exec", config.execCommand, "Browser executor")->type_name("COMMAND");
  app.add_option("--extra-path", config.extraPathDirs,
                 "Search DIR before PATH for the executor; repeatable")
      ->type_name("DIR")
      ->take_all()
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--poll-wait", config.pollWait, "Seconds that one poll waits for a job")
      ->type_name("S")
      ->check(between(0.0, kLongestPoll));
  app.add_option("--max-jobs", config.maxJobs, "Jobs at once, instead of what the service says")
      ->type_name("N")
      ->check(CLI::Range(1, kMostLanes));
  app.add_option("--serve-jobs", config.serveJobs, "End after N jobs")
      ->type_name("N")
      ->check(count);
  app.add_option("--idle-exit", config.idleExit, "End after S seconds without a job")
      ->type_name("S")
      ->check(seconds);
  app.add_option("--idle-close", config.idleClose, "Close task spaces idle for S seconds")
      ->type_name("S")
      ->check(seconds);
  app.add_option("--reap-interval", config.reapInterval,
                 "Look for idle task spaces every S seconds")
      ->type_name("S")
      ->check(between(0.1, kYear));
  app.add_flag("--sweep-all", config.sweepAll, "At start, close every task space");
  app.add_flag("--no-sweep", config.noSweep, "At start, close no task space")
      ->excludes("--sweep-all");
  app.add_flag("--insecure", config.insecure, "Allow plain http to a host that is not loopback");
  app.add_option("--ca-cert", config.caCertPath, "Trust only the certificates in PATH (PEM)")
      ->type_name("PATH");
  app.add_flag("--dry-run", config.dryRun, "Check configuration and service, serve nothing");
  app.add_flag("--check-llm", config.checkLLM, "Validate the LLM key before serving");
  app.add_option("--llm-base", options.llmBase, "Base URL of the LLM provider")->type_name("URL");
  app.add_option("--client", config.clientHeader, "Value of the X-VERDO-Driver-Client header")
      ->type_name("TEXT");
  app.add_option("--env-file", config.envFilePath, "Env file to read")->type_name("PATH");
  app.add_option("--color", color, "Colour of the log: auto, always or never")
      ->type_name("WHEN")
      ->check(CLI::IsMember({"auto", "always", "never"}));
  app.set_version_flag("--version", fmt::format("verdo-driver {}", DRIVER_VERSION));
  app.footer(kFooter);
}

/// A parser's message as one line.
std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

/// The first of the places that has a value which is not empty.
std::optional<std::string> firstGiven(const std::optional<std::string>& option,
                                      const char* variable, const Environment& environment,
                                      const std::map<std::string, std::string>& file) {
  if (option && !option->empty()) return option;
  for (const auto* source : {&environment, &file}) {
    const auto entry = source->find(variable);
    if (entry != source->end() && !entry->second.empty()) return entry->second;
  }
  return std::nullopt;
}

}  // namespace

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv) {
  CLI::App app("Turns this computer into a worker for the Verdo web service.", "verdo-driver");
  Options options;
  std::string color = "auto";
  define(app, options, color);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return Ended{0, app.help()};
  } catch (const CLI::CallForVersion& version) {
    return Ended{0, std::string(version.what()) + "\n"};
  } catch (const CLI::ParseError& error) {
    return Ended{kUsageError, fmt::format("verdo-driver: {} (see verdo-driver --help)\n",
                                          oneLine(error.what()))};
  }
  if (color != "auto") options.color = color == "always";
  return options;
}

DriverConfig resolveConfig(Options options, const Environment& environment) {
  DriverConfig config = std::move(options.config);
  const auto file = EnvFile::read(config.envFilePath.value_or(DriverConstants::envFile()));
  const auto given = [&](const std::optional<std::string>& option, const char* variable) {
    return firstGiven(option, variable, environment, file);
  };
  config.token = given(std::nullopt, DriverConstants::tokenEnv).value_or("");
  config.llmKey = given(std::nullopt, DriverConstants::llmKeyEnv).value_or("");
  config.server = lowerScheme(
      given(options.server, DriverConstants::serverEnv).value_or(DriverConstants::defaultServer));
  config.llmBase = lowerScheme(given(options.llmBase, DriverConstants::llmBaseEnv)
                                   .value_or(DriverConstants::llmDefaultBase));
  return config;
}

}  // namespace verdo::cli
