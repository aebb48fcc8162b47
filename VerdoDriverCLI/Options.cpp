#include "VerdoDriverCLI/Options.h"

#include "VerdoDriverCore/Contract/Protocol.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace verdo::cli {
namespace {

constexpr int kUsageError = 2;
/// Seconds. A session ends every request after an hour, and a poll's answer may come 15 s late.
constexpr double kMaxPollWait = 3580;
constexpr double kYear = 365.0 * 24 * 3600;
constexpr double kMinReapInterval = 0.1;
constexpr int kMaxLanes = 1000;
constexpr std::size_t kNameWidth = 24;  // columns of the help's left side

const char* const kFooter =
    "The driver token comes from VERDO_DRIVER_TOKEN and the LLM key from\n"
    "VERDO_LLM_API_KEY, in the environment or in the env file\n"
    "(~/.config/verdo/driver.env, chmod 600).\n\n"
    "Exit status: 0 done, 1 server unreachable, 2 bad configuration or usage,\n"
    "3 token revoked, 6 driver out of date, 7 LLM key rejected,\n"
    "127 executor not found, 130 stopped.";

/// Accepts a number of seconds, both limits included.
CLI::Validator seconds(double min, double max) {
  const auto check = [min, max](const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    // Not-a-number lies in no range.
    if (!text.empty() && *end == '\0' && value >= min && value <= max) return std::string();
    return fmt::format("'{}' is not a number from {} to {} seconds", text, min, max);
  };
  return {check, ""};
}

/// Accepts a whole number, both limits included.
CLI::Validator wholeNumber(int min, int max) {
  const auto check = [min, max](std::string& text) {
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, value);
    if (read.ec != std::errc() || read.ptr != end || value < min || value > max) {
      return fmt::format("'{}' is not a whole number from {} to {}", text, min, max);
    }
    // The parser would take a leading zero for the sign of an octal number.
    text = std::to_string(value);
    return std::string();
  };
  return {check, ""};
}

CLI::Validator colorChoice() {
  const auto check = [](const std::string& text) {
    const bool isKnown = text == "auto" || text == "always" || text == "never";
    return isKnown ? std::string() : fmt::format("'{}' is not auto, always or never", text);
  };
  return {check, ""};
}

/// The options under one heading of the help.
class Group {
 public:
  Group(CLI::App& app, std::string name) : app_(app), name_(std::move(name)) {}

  template <typename Value>
  CLI::Option* value(const char* option, Value& value, const char* type, const char* text) {
    return app_.add_option(option, value, text)->type_name(type)->group(name_);
  }
  void flag(const char* option, bool& value, const char* text) {
    app_.add_flag(option, value, text)->group(name_);
  }

 private:
  CLI::App& app_;
  std::string name_;
};

void defineService(Group group, Options& options) {
  DriverConfig& config = options.config;
  group.value("--server", options.server, "URL", "Base URL of the service");
  group.flag("--insecure", config.insecure, "Allow plain http to a host that is not loopback");
  group.value("--ca-cert", config.caCertPath, "PATH", "Trust only the certificates in PATH (PEM)");
  group.value("--env-file", config.envFilePath, "PATH", "Env file to read");
  group.value("--client", config.clientHeader, "TEXT", "Value of the X-VERDO-Driver-Client header");
  group.value("--poll-wait", config.pollWait, "S", "Seconds that one poll waits for a job")
      ->check(seconds(0, kMaxPollWait));
  group.flag("--dry-run", config.dryRun, "Check configuration and service, serve nothing");
}

void defineJobs(Group group, Options& options) {
  DriverConfig& config = options.config;
  const auto anyTime = seconds(0, kYear);
  group.value("--exec", options.exec, "COMMAND", "Browser executor, quoted as in a shell");
  group
      .value("--extra-path", config.extraPathDirs, "DIR",
             "Search DIR before PATH for the executor; repeatable")
      ->allow_extra_args(false);
  group.value("--max-jobs", config.maxJobs, "N", "Jobs at once, instead of what the service says")
      ->transform(wholeNumber(1, kMaxLanes));
  group.value("--serve-jobs", config.serveJobs, "N", "End after N jobs")
      ->transform(wholeNumber(1, std::numeric_limits<int>::max()));
  group.value("--idle-exit", config.idleExit, "S", "End after S seconds without a job")
      ->check(anyTime);
  group.value("--idle-close", config.idleClose, "S", "Close task spaces idle for S seconds")
      ->check(anyTime);
  group
      .value("--reap-interval", config.reapInterval, "S",
             "Look for idle task spaces every S seconds")
      ->check(seconds(kMinReapInterval, kYear));
  group.flag("--sweep-all", config.sweepAll, "At start, close every task space");
  group.flag("--no-sweep", config.noSweep, "At start, close no task space");
}

void defineLLM(Group group, Options& options) {
  group.value("--llm-base", options.llmBase, "URL", "Base URL of the LLM provider");
  group.flag("--check-llm", options.config.checkLLM, "Validate the LLM key before serving");
}

const char* const kDoctorFooter =
    "The options of verdo-driver count, too, before or behind the word: --server,\n"
    "--env-file, --ca-cert, --exec, --extra-path, --llm-base, --insecure, …\n\n"
    "Exit status: 0 all that is needed works, 1 something does not, 2 bad usage,\n"
    "130 stopped.";

/// After the help flag, which it takes over.
CLI::App* defineDoctor(CLI::App& app, DoctorOptions& doctor) {
  auto* command = app.add_subcommand("doctor", "Find out why the driver does not work");
  command->fallthrough();  // the options of a run mean the same here
  auto* thorough = command->add_flag("--thorough", doctor.thorough,
                                     "Poll once and post large bodies, too; may delay one job");
  auto* json = command->add_flag("--json", doctor.json, "Print one JSON object");
  auto* report = command->add_flag("--report", doctor.report, "Print a text fit for a bug report");
  for (auto* option : {thorough, json, report}) option->group("Doctor");
  command->get_formatter()->column_width(kNameWidth);
  command->footer(kDoctorFooter);
  return command;
}

void define(CLI::App& app, Options& options, std::string& color) {
  app.set_help_flag("");  // defined last, so that its group comes last
  defineService(Group(app, "Service"), options);
  defineJobs(Group(app, "Jobs"), options);
  defineLLM(Group(app, "LLM"), options);
  Group(app, "Output")
      .value("--color", color, "WHEN", "Colour of the log: auto, always or never")
      ->check(colorChoice());
  app.set_version_flag("--version", fmt::format("verdo-driver {}", DRIVER_VERSION),
                       "Show the version and end")
      ->group("Output");
  app.set_help_flag("-h,--help", "Show this and end")->group("Output");
  app.get_formatter()->column_width(kNameWidth);
  app.footer(kFooter);
}

/// The library sets its headings apart by two.
std::string withSingleBlankLines(std::string text) {
  for (auto at = text.find("\n\n\n"); at != std::string::npos; at = text.find("\n\n\n", at)) {
    text.erase(at, 1);
  }
  return text;
}

Ended usageError(std::string message) {
  std::replace(message.begin(), message.end(), '\n', ' ');
  return {kUsageError, fmt::format("verdo-driver: {} (see verdo-driver --help)\n", message)};
}

}  // namespace

std::variant<Options, Ended> parseCommandLine(int argc, const char* const* argv) {
  CLI::App app("Turns this computer into a worker for the Verdo web service.", "verdo-driver");
  Options options;
  std::string color = "auto";
  define(app, options, color);
  DoctorOptions doctor;
  const auto* const doctorCommand = defineDoctor(app, doctor);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return Ended{0, withSingleBlankLines(app.help())};
  } catch (const CLI::CallForVersion& version) {
    return Ended{0, std::string(version.what()) + "\n"};
  } catch (const CLI::ParseError& error) {
    return usageError(error.what());
  }
  if (options.config.sweepAll && options.config.noSweep) {
    return usageError("--sweep-all and --no-sweep exclude each other");
  }
  if (doctor.json && doctor.report) return usageError("--json and --report exclude each other");
  if (doctorCommand->parsed()) options.doctor = doctor;
  if (color != "auto") options.color = color == "always";
  return options;
}

}  // namespace verdo::cli
