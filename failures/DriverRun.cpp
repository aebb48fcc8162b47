#include "LocalService/LocalService.h"
#include "failures/Run.h"
#include "failures/Subject.h"
#include "failures/Words.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/TempDir.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include <fmt/format.h>
#include <signal.h>

namespace verdo::failures {
namespace {

using namespace std::chrono_literals;
using local::JobSnapshot;
using local::JobState;

/// The driver's time goes so many times faster than ours: its job reports once in 3 s of its own.
constexpr int kSpeed = 10;
/// How long both jobs may take on a busy computer.
constexpr auto kWork = 20s;
/// And where the driver has told of a failure. It tries a post or poll again after a second of its
/// own, and drops a job that it cannot acknowledge for five.
constexpr auto kAfterWord = 2500ms;
/// The longest stop: 10 s to post what is left, 60 s for a worker, 60 s for the last sweep.
constexpr auto kStop = 15s;
constexpr auto kStart = 10s;

constexpr const char* kContent = "what the file holds";
// How lines of the LLM job begin.
constexpr const char* kChunk = "__LLMCHUNK__";
constexpr const char* kEnd = R"(__LLMEND__{"ok": true)";

/// The lines begin with these, once or several times over: a post whose reply was lost is repeated.
bool isRepeated(const std::vector<std::string>& lines, const std::vector<std::string>& begins) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (!lines[i].starts_with(begins[i % begins.size()])) return false;
  }
  return !lines.empty() && lines.size() % begins.size() == 0;
}

/// The log's lines that tell of a failure are marked so.
bool isComplaint(const std::string& line) { return line.starts_with("!") || line.starts_with("✗"); }

bool complains(const std::string& log) {
  const auto lines = linesIn(log);
  return std::any_of(lines.begin(), lines.end(), isComplaint);
}

/// One run, and what there is to judge it by.
class DriverRun {
 public:
  explicit DriverRun(const std::optional<Attempt>& attempt)
      : attempt_(attempt), telling_(directory_ / "report") {
    std::filesystem::create_directory(home_);
    service_.start();
    const auto port = fmt::format("{}:{}", kLookedUp, service_.port());
    environment_ = {{"PATH", "/usr/bin:/bin"},
                    {"HOME", home_},
                    {"VERDO_DRIVER_TOKEN", service_.token()},
                    {"VERDO_LLM_API_KEY", service_.providerKey()},
                    {"VERDO_LLM_BASE_URL", "http://" + port + "/llm"}};
    argv_ = {VERDO_DRIVER_PROGRAM, "--insecure", "--server",
             "http://" + port,     "--exec",     "/bin/sh " VERDO_FAILURES_EXECUTOR};
    browserJob_ = service_.jobs().add({.label = "mail",
                                       // The file that it is given, and a process that outlives it.
                                       .payload = "echo first; cat __VERDO_FILE__data__; echo\n"
                                                  "sleep 600 >/dev/null 2>&1 &\necho last\n",
                                       .taskSpace = "u1-mail",
                                       .files = {{.name = "data", .content = kContent}}});
    llmJob_ = service_.jobs().add(
        {.label = "llm", .kind = "llm", .payload = R"({"v": 1, "model": "m", "prompt": "hello"})"});
  }

  Outcome play() {
    auto environment = environment_;
    environment.merge(telling_.orders(attempt_, kSpeed));
    {
      Subject driver(argv_, environment);
      const auto begin = std::chrono::steady_clock::now();
      test::eventually(
          [&] {
            if (driver.hasEnded() || isWorkDone()) return true;
            return complains(driver.log()) && std::chrono::steady_clock::now() - begin > kAfterWord;
          },
          kWork);
      endedByItself_ = driver.hasEnded();
      if (!endedByItself_) driver.signal(SIGTERM);
      status_ = driver.wait(kStop);
      outcome_.log = driver.log();
      if (!status_) off("it hangs");
    }
    takeReport();
    judge();
    return std::move(outcome_);
  }

 private:
  bool isWorkDone() {
    const auto jobs = service_.jobs().list();
    return std::all_of(jobs.begin(), jobs.end(),
                       [](const auto& job) { return job.state == JobState::done; });
  }

  void takeReport() {
    const Report& report = telling_.report();
    for (std::size_t i = 0; i < kCalls; ++i) outcome_.calls[i] = report.calls[i];
    outcome_.fired = report.fired;
    outcome_.trace = telling_.trace();
  }

  void off(const std::string& why) {
    outcome_.isOff = true;
    problems_ += (problems_.empty() ? "" : "; ") + why;
  }

  void judge() {
    std::set<std::string> words;
    if (status_) {
      if (const auto end = judgeEnd(); !end.empty()) words.insert(end);
      // An end with a failure tells of all jobs.
      if (*status_ == 130) {
        const auto& jobs = service_.jobs();
        judgeJob(browserJob_, isRepeated(jobs.lines(browserJob_), {"first", kContent, "last"}),
                 words);
        judgeJob(llmJob_, isRepeated(jobs.lines(llmJob_), {kChunk, kEnd}), words);
      }
    }
    judgeLeavings();
    if (outcome_.isOff) {
      outcome_.summary = problems_;
    } else {
      outcome_.summary = words.empty() ? kWentOn : fmt::format("{}", fmt::join(words, "; "));
    }
  }

  /// How the process ended: with one of its statuses, and with a word where it was not asked to or
  /// did not end as asked. Empty: as asked.
  std::string judgeEnd() {
    const int status = *status_;
    const std::string last = generalised(lastLine(outcome_.log));
    if (status < 0) {
      if (!isFailing(Call::memory) || status != -SIGABRT || !mayAbort()) {
        off(fmt::format("ended by signal {}", -status));
      }
      return "aborted: " + last;
    }
    if (status == 130 && !endedByItself_) return "";
    static const std::set<int> documented = {0, 1, 2, 3, 6, 7, 127};
    const bool isSaid = last.starts_with("✗") || last.starts_with("verdo-driver: ");
    if (!documented.contains(status) || !isSaid) {
      off(fmt::format("ended with status {} and \"{}\"", status, last));
    }
    return fmt::format("{} with status {}: {}", endedByItself_ ? "ended" : "stopped", status, last);
  }

  /// Without memory there may be no other way where nobody can catch an exception: on a thread that
  /// all work needs, or before main().
  bool mayAbort() {
    constexpr std::uint64_t kBeforeMain = 12;
    return service_.requests().count() > 0 || attempt_->at <= kBeforeMain;
  }

  bool isFailing(Call call) const { return attempt_ && attempt_->row.call == call; }

  /// Done as it should be, or told as failed with a reason, or left to its lease with a word.
  void judgeJob(std::int64_t id, bool isOutputRight, std::set<std::string>& words) {
    const auto job = *service_.jobs().find(id);
    if (job.state != JobState::done) {
      words.insert(fmt::format("{} job left to its lease: {}", job.kind, saidOf(job)));
      return;
    }
    if (job.exitCode == 0 && job.error.value_or("").empty()) {
      if (!isOutputRight) off(fmt::format("{} job told as done with other output", job.kind));
      return;
    }
    const auto lines = service_.jobs().lines(id);
    const std::string reason =
        job.error.value_or(job.kind == "llm" && !lines.empty() ? lines.back() : "");
    // Of a job that the stop ended, the status says so.
    const bool isStopped = job.exitCode == -SIGTERM || job.exitCode == 128 + SIGTERM;
    if (reason.empty() && !isStopped)
      off(fmt::format("{} job told as failed without a reason", job.kind));
    words.insert(fmt::format("{} job told as failed ({}): {}", job.kind, job.exitCode.value_or(0),
                             generalised(reason)));
  }

  /// What the driver said of a job that it left, or of why it may never have had it.
  std::string saidOf(const JobSnapshot& job) {
    std::string ofPolls;
    bool isKnown = false;
    for (const auto& line : linesIn(outcome_.log)) {
      const bool isOfIt = line.find(fmt::format("job {}", job.id)) != std::string::npos;
      isKnown = isKnown || isOfIt;
      if (!isComplaint(line)) continue;
      if (isOfIt) return generalised(line);
      if (line.find("poll failed") != std::string::npos) ofPolls = generalised(line);
    }
    if (!ofPolls.empty()) return ofPolls;
    // libcurl asks once more by itself where a connection that it had before dies: the reply that
    // brought the job came over that one.
    if (!isKnown && (isFailing(Call::transfer) || isFailing(Call::memory))) return "it never came";
    off(fmt::format("{} job left without a word", job.kind));
    return "nothing";
  }

  void judgeLeavings() {
    // The first look may come amid the last kill.
    const auto isAlone = [&] { return test::processesOf(home_).empty(); };
    bool processes = !test::eventually(isAlone, 500ms);
    auto files = leftFiles();
    if (processes || !files.empty()) {
      // A crash's leavings are the next start's business.
      const bool isCrash = status_ && *status_ < 0;
      if (isCrash) {
        startOnceMore();
        processes = !test::eventually(isAlone, 500ms);
        files = leftFiles();
      }
      if (processes) off(isCrash ? "processes outlive the next start" : "processes are left");
      for (const auto& file : files) off("left: " + generalised(file));
    }
    for (const pid_t pid : test::processesOf(home_)) ::kill(pid, SIGKILL);
  }

  /// Anything but the locks, which stay on purpose.
  std::vector<std::string> leftFiles() const {
    std::vector<std::string> left;
    std::error_code gone;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home_, gone)) {
      if (entry.path().filename().string().ends_with("lock")) continue;
      const auto path = std::filesystem::relative(entry.path(), home_).string();
      if (path != ".cache" && path != ".cache/verdo") left.push_back(path);
    }
    return left;
  }

  void startOnceMore() {
    Subject driver(argv_, environment_);
    test::eventually(
        [&] {
          return driver.hasEnded() || driver.log().find("serving up to") != std::string::npos;
        },
        kStart);
    driver.signal(SIGTERM);
    driver.wait(kStop);
  }

  const std::optional<Attempt> attempt_;
  const test::TempDir directory_{};
  const std::string home_ = directory_ / "home";
  Telling telling_;
  // The lease is a minute of the driver's.
  local::LocalService service_{{.lease = 60'000ms / kSpeed}};
  Environment environment_;
  std::vector<std::string> argv_;
  std::int64_t browserJob_ = 0;
  std::int64_t llmJob_ = 0;

  bool endedByItself_ = false;
  std::optional<int> status_;
  std::string problems_;
  Outcome outcome_;
};

}  // namespace

Outcome runDriver(const std::optional<Attempt>& attempt) { return DriverRun(attempt).play(); }

}  // namespace verdo::failures
