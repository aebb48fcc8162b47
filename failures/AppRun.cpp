#include "LocalService/LocalService.h"
#include "failures/Run.h"
#include "failures/Subject.h"
#include "failures/Words.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/TempDir.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include <fmt/format.h>
#include <signal.h>

namespace verdo::failures {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kServing = 20s;       // on a busy computer
constexpr auto kAfterAppsWord = 4s;  // where the app has told of a failure
constexpr auto kCommand = 10s;
constexpr auto kQuit = 20s;

// What is there before the app's first start, and must be there after it.
constexpr const char* kSettings = "[General]\nserverURL={}\nkeepAwakeMode=never\nmine=kept\n";
constexpr const char* kKey = "key-of-the-provider";
constexpr const char* kEntry =
    "[Desktop Entry]\nType=Application\nName=Verdo Driver\nExec=/gone/verdo-driver-app\n"
    "X-Mine=kept\n";
constexpr const char* kLogged = "2026-01-01 00:00:00 what was logged before\n";

/// One life of the app without a window: its driver serves, `--status`, `--quit`. On its way it
/// writes the settings (where the secrets are), its entry for the login (which names another path)
/// and its log.
class AppRun {
 public:
  explicit AppRun(const std::optional<Attempt>& attempt)
      : attempt_(attempt), telling_(directory_ / "report") {
    service_.start();
    write(settings_, fmt::format(fmt::runtime(kSettings), service_.url()));
    write(secrets_ + "/driver-token", service_.token());
    write(secrets_ + "/llm-key", kKey);
    write(entry_, kEntry);
    write(log_, kLogged);
    write(home_ + "/bin/ego-browser", "#!/bin/sh\ncat >/dev/null\necho '__SPACES__[]'\n");
    fs::permissions(home_ + "/bin/ego-browser", fs::perms::owner_all);
    fs::create_directory(home_ + "/run");
    fs::permissions(home_ + "/run", fs::perms::owner_all);
    const std::string nowhere = "unix:path=" + home_ + "/none";
    environment_ = {
        {"PATH", home_ + "/bin:/usr/bin:/bin"},        {"HOME", home_},
        {"XDG_RUNTIME_DIR", home_ + "/run"},           {"QT_QPA_PLATFORM", "offscreen"},
        {"DBUS_SESSION_BUS_ADDRESS", nowhere},         {"DBUS_SYSTEM_BUS_ADDRESS", nowhere},
        {"VERDO_LLM_BASE_URL", service_.providerUrl()}};
  }

  Outcome play() {
    auto environment = environment_;
    environment.merge(telling_.orders(attempt_, 1));
    {
      Subject app({VERDO_APP_PROGRAM}, environment);
      const auto begin = std::chrono::steady_clock::now();
      test::eventually(
          [&] {
            if (app.hasEnded() || isAtWork()) return true;
            return !complaint(app).empty() &&
                   std::chrono::steady_clock::now() - begin > kAfterAppsWord;
          },
          kServing);
      if (!app.hasEnded()) {
        const bool answers = ask("--status").find("\"connection\"") != std::string::npos;
        if (!answers) missing("no answer to --status");
        if (service_.requests().count("poll") == 0) missing("not at work");
        ask("--quit");
        if (!test::eventually([&] { return app.hasEnded(); }, answers ? kQuit : 1s)) {
          missing("no end by --quit");
          app.signal(SIGTERM);
        }
      } else {
        endedByItself_ = true;
      }
      const auto status = app.wait(kQuit);
      outcome_.log = app.log() + test::contentOf(log_);
      judge(status, complaint(app));
    }
    const Report& report = telling_.report();
    for (std::size_t i = 0; i < kCalls; ++i) outcome_.calls[i] = report.calls[i];
    outcome_.fired = report.fired;
    outcome_.trace = telling_.trace();
    return std::move(outcome_);
  }

 private:
  static void write(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << content;
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  }

  bool isAtWork() {
    return service_.requests().count("poll") > 0 &&
           test::contentOf(settings_).find("secretPlace=files") != std::string::npos &&
           test::contentOf(entry_).find(VERDO_APP_PROGRAM) != std::string::npos;
  }

  /// What a command to the running app prints.
  std::string ask(const char* option) const {
    const Subject command({VERDO_APP_PROGRAM, option}, environment_);
    command.wait(kCommand);
    return command.output();
  }

  /// The last line that tells of a failure; of the desktop's buses, which are not there, there
  /// always are some.
  std::string complaint(const Subject& app) const {
    static const std::regex pattern("failed|cannot|error|unable|unavailable|✗|No space",
                                    std::regex::icase);
    static const std::regex usual("KeepAwake|BusLink|[Ss]ession bus|D-Bus");
    std::string last;
    for (const auto& line : linesIn(test::contentOf(log_) + app.log())) {
      if (std::regex_search(line, pattern) && !std::regex_search(line, usual)) last = line;
    }
    return last;
  }

  void missing(const std::string& what) { missing_.insert(what); }

  void off(const std::string& why) {
    outcome_.isOff = true;
    problems_ += (problems_.empty() ? "" : "; ") + why;
  }

  void judge(const std::optional<int>& status, const std::string& said) {
    judgeFiles();
    if (!status) {
      off("it hangs");
    } else if (*status == -SIGTRAP && said.find("GLib-ERROR") != std::string::npos) {
      missing("ended by GLib");  // which has no other way without a thread
    } else if (*status < 0) {
      off(fmt::format("ended by signal {}", -*status));
    } else if (*status > 1 || (*status == 1 && !endedByItself_)) {
      off(fmt::format("ended with status {}", *status));
    } else if (endedByItself_) {
      missing(fmt::format("ended with status {}", *status));
    }
    if (!missing_.empty() && said.empty()) off("not a word of what failed");
    if (!test::eventually([&] { return test::processesOf(home_).empty(); }, 2s)) {
      off("processes are left");
      for (const pid_t pid : test::processesOf(home_)) ::kill(pid, SIGKILL);
    }
    const std::string what = fmt::format("{}", fmt::join(missing_, ", "));
    if (outcome_.isOff) {
      outcome_.summary = problems_ + (what.empty() ? "" : " (" + what + ")");
    } else {
      outcome_.summary = what.empty() ? kWentOn : what + ": " + generalised(said);
    }
  }

  void judgeFiles() {
    const std::string settings = test::contentOf(settings_);
    for (const auto& kept : {"serverURL=" + service_.url(), std::string("keepAwakeMode=never"),
                             std::string("mine=kept")}) {
      if (settings.find(kept) == std::string::npos) off("settings have lost " + kept);
    }
    if (settings.find("secretPlace=files") == std::string::npos) missing("settings not written");
    if (test::contentOf(secrets_ + "/driver-token") != service_.token()) off("the token is lost");
    if (test::contentOf(secrets_ + "/llm-key") != kKey) off("the LLM key is lost");
    const std::string entry = test::contentOf(entry_);
    if (entry.find("X-Mine=kept") == std::string::npos) off("the login's entry is lost");
    if (entry.find(VERDO_APP_PROGRAM) == std::string::npos) missing("entry not renewed");
    const std::string log = test::contentOf(log_);
    if (!log.starts_with(kLogged)) off("the log is lost");
  }

  const std::optional<Attempt> attempt_;
  const test::TempDir directory_{};
  const std::string home_ = directory_ / "home";
  const std::string settings_ = home_ + "/.config/verdo-driver/settings.ini";
  const std::string secrets_ = home_ + "/.local/share/verdo-driver/secrets";
  const std::string entry_ = home_ + "/.config/autostart/verdo-driver.desktop";
  const std::string log_ = home_ + "/.local/state/verdo-driver/driver.log";
  Telling telling_;
  local::LocalService service_{{}};
  Environment environment_;

  bool endedByItself_ = false;
  std::set<std::string> missing_;  ///< of what the app should have done
  std::string problems_;
  Outcome outcome_;
};

}  // namespace

Outcome runApp(const std::optional<Attempt>& attempt) { return AppRun(attempt).play(); }

}  // namespace verdo::failures
