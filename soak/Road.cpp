#include "soak/Road.h"

#include "VerdoDriverCore/System/Sync.h"
#include "tests/Support/Leaks.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <signal.h>

namespace verdo::soak {

using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

constexpr auto kLook = 25ms;  // between two looks at what is open
constexpr int kLooks = 8;
constexpr int kStopped = 130;
constexpr int kUnreachable = 1;

local::LocalServiceOptions serviceOptions(const RoadOptions& options) {
  local::LocalServiceOptions service;
  service.lease = options.lease;
  service.seed = options.seed;
  // All requests, but of their bodies only what tells whose they are.
  service.requestLog = {.entries = 10'000'000, .bodyBytes = 100};
  return service;
}

/// A number of /proc/{pid}/status.
std::size_t statusNumber(const std::string& status, const std::string& key) {
  const auto at = status.find(key + ":");
  return at == std::string::npos ? 0 : std::stoul(status.substr(at + key.size() + 1));
}

}  // namespace

Road::Road(const RoadOptions& options)
    : options_(options),
      service_(serviceOptions(options)),
      random_(options.seed),
      weather_({.way = options.way,
                .brief = options.brief,
                .storm = options.storm,
                .lease = options.lease},
               options.seed + 1, service_, evidence_) {
  fs::create_directory(state_ / "spaces");
  service_.start();
  service_.hello().patch(
      {{"max_jobs", options.lanes}, {"idle_close_seconds", 5}, {"reap_interval_seconds", 5}});
  for (auto& rule : providerRules()) service_.provider().add(std::move(rule));
  if (options.way == Way::http2) certificates_.emplace();
  if (options.way != Way::direct) {
    front_ =
        std::make_unique<test::Front>(service_.port(), certificates_ ? &*certificates_ : nullptr);
  }
}

Environment Road::environment() const {
  return {{"PATH", "/usr/bin:/bin"},
          {"HOME", home_.path()},
          {"TMPDIR", home_ / "tmp"},
          {"VERDO_DRIVER_TOKEN", service_.token()},
          {"VERDO_LLM_API_KEY", service_.providerKey()}};
}

std::vector<std::string> Road::arguments() const {
  const auto self = fs::read_symlink("/proc/self/exe").string();
  std::vector<std::string> arguments{
      "--server",   front_ ? front_->url() : service_.url(),
      "--exec",     fmt::format("'{}' --execute '{}'", self, state_.path()),
      "--llm-base", service_.providerUrl(),
      "--check-llm"};
  if (certificates_) {
    arguments.insert(arguments.end(), {"--ca-cert", certificates_->authority()});
  }
  return arguments;
}

/// A hello that goes wrong ends the driver, whose supervisor starts it again.
void Road::failToStart() {
  using local::Delivery;
  const std::vector<local::Fault> faults{
      {.endpoint = "hello", .count = 1, .reply = local::FaultReply{.status = 503}},
      {.endpoint = "hello", .count = 1, .reply = local::FaultReply{.status = 429, .body = "later"}},
      {.endpoint = "hello", .count = 1, .reply = local::FaultReply{.status = 200, .body = "{"}},
      {.endpoint = "hello", .count = 1, .delivery = Delivery::reset},
      {.endpoint = "hello", .count = 1, .delivery = Delivery::truncated},
      {.endpoint = "hello", .count = 1, .delivery = Delivery::garbage}};
  for (const auto& fault : faults) {
    const auto id = service_.faults().add(fault);
    test::Program program(arguments(), environment());
    const auto status = program.wait();
    if (status != kUnreachable || service_.faults().hits(id) != 1) {
      finding(report_.wrongExits,
              fmt::format("a driver whose hello failed has ended with {}", status.value_or(-1)));
    }
  }
}

void Road::start() {
  service_.faults().add({.endpoint = "hello", .count = 1, .delay = 500ms});
  service_.faults().add(
      {.endpoint = "models", .count = 1, .reply = local::FaultReply{.status = 502, .body = "no"}});
  driver_ = std::make_unique<test::Program>(arguments(), environment());
  if (!service_.requests().waitFor("poll", 1, 30s)) {
    throw std::runtime_error(options_.name + ": the driver does not poll:\n" + driver_->errors());
  }
}

RoadReport Road::run() {
  const auto begin = Clock::now();
  report_.name = options_.name;
  fs::create_directory(home_ / "tmp");
  failToStart();
  start();
  deadline_ = Clock::now() + options_.patience;
  weather_.begin();
  serve(options_.jobs / 4);
  report_.atQuarter = footprint();
  weather_.worsen();
  serve(options_.jobs);
  report_.atEnd = footprint();
  end();
  evidence_.readRequests(service_.requests());
  const auto runs = runsByNumber();
  for (const auto& job : given_) {
    const auto found = runs.find(job.plan.number);
    judge(job, service_.jobs(), evidence_, found == runs.end() ? 0 : found->second, report_.tally);
  }
  report_.weather = weather_.counts();
  report_.requests = evidence_.requests();
  report_.faultedRequests = evidence_.faultedRequests();
  report_.log = driver_->errors();
  report_.seconds = toSeconds(Clock::now() - begin);
  return std::move(report_);
}

void Road::serve(int until) {
  // More than the lanes hold, so that none stays free.
  const auto most = static_cast<std::size_t>(options_.lanes) * 2;
  while (Clock::now() < deadline_) {
    while (static_cast<int>(given_.size()) < until && open_.size() < most) give();
    if (open_.empty()) break;
    std::this_thread::sleep_for(kLook);
    const auto now = Clock::now();
    weather_.tick(now, *driver_, front_.get());
    tellProgress(now);
    lookAtOpenJobs(now);
  }
  weather_.clear(*driver_);
}

/// Who waits for twenty minutes wants to know what for.
void Road::tellProgress(Clock::time_point now) {
  if (options_.brief || now < nextTold_) return;
  nextTold_ = now + 1min;
  fmt::print(stderr, "{}: {} of {} jobs done\n", options_.name, given_.size() - open_.size(),
             options_.jobs);
}

void Road::give() {
  const auto plan = makePlan(static_cast<int>(given_.size()), random_,
                             {.brief = options_.brief, .lease = options_.lease});
  // Files come over HTTP/1.1, which the proxy does not speak.
  const auto id = service_.jobs().add(specOf(plan, options_.way == Way::http2));
  if (plan.cancel == Cancel::queued) service_.jobs().cancel(id);
  open_.insert(given_.size());
  given_.push_back({plan, id});
}

void Road::lookAtOpenJobs(Clock::time_point now) {
  std::erase_if(open_, [&](std::size_t index) {
    const auto& [plan, id] = given_[index];
    const auto job = service_.jobs().find(id).value();
    if (job.state == local::JobState::done) return true;
    if (plan.cancel == Cancel::atWork && !job.cancelled && job.acknowledged &&
        now >= *job.acknowledged + plan.cancelAfter) {
      service_.jobs().cancel(id);
    }
    return false;
  });
}

bool Road::isIdle() const {
  // The reaper's scripts.
  if (!driver_->proc(fmt::format("task/{}/children", driver_->pid())).empty()) return false;
  for (const auto& task : fs::directory_iterator(fmt::format("/proc/{}/task", driver_->pid()))) {
    const auto name = test::contentOf(task.path() / "comm");
    if (name.starts_with("job-") || name.starts_with("staging-")) return false;
  }
  return true;
}

Footprint Road::footprint() {
  test::eventually([this] { return isIdle(); }, 30s);
  // Connections are kept for a while. Those that the service has ended go with the next poll.
  service_.endOutage();
  const auto polls = service_.requests().count("poll");
  service_.outage(local::OutageKind::refuse, 100ms);
  service_.requests().waitFor("poll", polls + 1, 60s);
  // A script that begins amid a look is seen in one, not in all.
  auto least = look();
  for (int i = 1; i < kLooks; ++i) {
    std::this_thread::sleep_for(kLook);
    test::eventually([this] { return isIdle(); }, 30s);
    const auto next = look();
    least.memory = std::min(least.memory, next.memory);
    least.threads = std::min(least.threads, next.threads);
    least.sockets = std::min(least.sockets, next.sockets);
    least.otherDescriptors = std::min(least.otherDescriptors, next.otherDescriptors);
  }
  return least;
}

Footprint Road::look() const {
  const auto status = driver_->proc("status");
  Footprint footprint;
  footprint.memory = statusNumber(status, "RssAnon") * 1024;
  footprint.threads = static_cast<int>(statusNumber(status, "Threads"));
  for (const auto& entry : fs::directory_iterator(fmt::format("/proc/{}/fd", driver_->pid()))) {
    std::error_code gone;
    const auto target = fs::read_symlink(entry.path(), gone).string();
    ++(target.starts_with("socket:") ? footprint.sockets : footprint.otherDescriptors);
  }
  return footprint;
}

void Road::end() {
  service_.faults().clearAll();
  service_.endOutage();
  driver_->signal(SIGTERM);
  if (const auto status = driver_->wait(); status != kStopped) {
    finding(report_.wrongExits, fmt::format("the driver has ended with {}", status.value_or(-1)));
  }
  countLeftovers();
}

void Road::countLeftovers() {
  test::eventually([this] { return test::processesOf(home_.path()).empty(); }, 10s);
  for (const pid_t pid : test::processesOf(home_.path())) {
    finding(report_.processesLeft, fmt::format("process {} is left", pid));
    ::kill(pid, SIGKILL);
  }
  for (const auto& entry : fs::recursive_directory_iterator(home_.path())) {
    const auto name = entry.path().filename().string();
    if (name.ends_with(".lock") || (entry.is_directory() && !name.starts_with("verdo-"))) continue;
    finding(report_.filesLeft, entry.path().string() + " is left");
  }
  for (const auto& entry : fs::directory_iterator(state_ / "spaces")) {
    finding(report_.spacesLeft, "task space " + entry.path().filename().string() + " is open");
  }
}

std::map<int, int> Road::runsByNumber() const {
  std::map<int, int> runs;
  for (const auto& line : test::linesOf(state_ / "journal")) ++runs[std::stoi(line)];
  return runs;
}

void Road::finding(int& count, const std::string& text) {
  ++count;
  if (count <= 10) report_.tally.findings.push_back(text);
}

}  // namespace verdo::soak
