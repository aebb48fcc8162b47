#include "tests/Support/DriverFixture.h"

#include "VerdoDriverCore/System/ThreadName.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Misbehaviour.h"

#include <filesystem>
#include <fstream>

namespace verdo::test {

using namespace std::chrono_literals;

namespace {

std::size_t countThreads() {
  // A sanitizer adds a thread of its own once there is a second one.
  std::thread([] {}).join();
  return threadNames().size();
}

}  // namespace

DriverFixture::DriverFixture(local::LocalServiceOptions options)
    : descriptorsBefore_(openDescriptors()),
      threadsBefore_(countThreads()),
      homeVariable_("HOME", home_.path()),
      ownedService_(std::make_unique<local::LocalService>(std::move(options))),
      service(*ownedService_) {
  service.start();
  config.server = service.url();
  config.token = service.token();
  config.execCommand = roleCommand("executor '" + path("spaces") + "'");
  config.envFilePath = path("driver.env");
}

DriverFixture::~DriverFixture() = default;

void DriverFixture::TearDown() {
  if (thread_.joinable()) stopAndFinish();
  runner.reset();
  ownedService_.reset();
  // Threads that end by themselves (a job's, the reaper's) may be on their last steps.
  EXPECT_TRUE(eventually([&] { return threadNames().size() <= threadsBefore_; }))
      << "left: " << testing::PrintToString(threadNames());
  EXPECT_TRUE(eventually([&] { return openDescriptors().size() <= descriptorsBefore_.size(); }))
      << "left: " << testing::PrintToString(openDescriptors());
  EXPECT_TRUE(eventually([&] { return processesOf(home_.path()).empty(); }))
      << "left: " << testing::PrintToString(processesOf(home_.path()));
  EXPECT_FALSE(hasChildren());
  if (std::filesystem::exists(stagingCache())) {
    for (const auto& entry : std::filesystem::directory_iterator(stagingCache())) {
      EXPECT_FALSE(entry.is_directory()) << entry;
    }
  }
}

Timings DriverFixture::scaledTimings() {
  Timings scaled;
  scaled.reportCycle = 60ms;
  scaled.retryFirst = 20ms;
  scaled.retryLongest = 300ms;
  scaled.postDeadline = 1800ms;
  scaled.postDeadlineStopping = 200ms;
  scaled.acknowledgeDeadline = 100ms;
  scaled.minAttemptStopping = 20ms;
  scaled.scriptStopping = kSanitized ? 1500ms : 500ms;
  scaled.sweepStopping = 1200ms;
  scaled.termination.step = 4ms;
  scaled.drainAfterKill = 100ms;
  scaled.pollRetryFirst = 20ms;
  scaled.pollRetryLongest = 600ms;
  scaled.laneWait = 100ms;
  scaled.emptyPollPause = 20ms;
  scaled.throttlePause = 20ms;
  scaled.childPoll = 5ms;
  scaled.shutdownPerWorker = 20s;
  return scaled;
}

void DriverFixture::start() {
  runner = std::make_shared<DriverRunner>(config, log, observer, timings);
  std::packaged_task<ExitReason()> task([runner = runner] {
    setThreadName("run");
    return runner->run();
  });
  reason_ = task.get_future();
  thread_ = std::thread(std::move(task));
}

ExitReason DriverFixture::finish(std::chrono::milliseconds timeout) {
  if (reason_.wait_for(timeout) != std::future_status::ready) {
    ADD_FAILURE() << "the run does not end";
    runner->stop();
    // A thread that never ends cannot be let go of: it uses what the fixture owns.
    if (reason_.wait_for(20s) != std::future_status::ready) std::abort();
  }
  thread_.join();
  return reason_.get();
}

ExitReason DriverFixture::stopAndFinish() {
  const auto begin = std::chrono::steady_clock::now();
  runner->stop();
  const auto reason = finish();
  elapsed = std::chrono::steady_clock::now() - begin;
  return reason;
}

ExitReason DriverFixture::run() {
  start();
  return finish();
}

std::int64_t DriverFixture::addJob(const std::string& script, local::JobSpec spec) {
  spec.payload = script;
  return service.jobs().add(std::move(spec));
}

local::JobSnapshot DriverFixture::doneJob(std::int64_t id) {
  EXPECT_TRUE(service.jobs().waitFor(id, local::JobState::done, kLong)) << "job " << id;
  return *service.jobs().find(id);
}

void DriverFixture::setSpaces(const std::vector<std::string>& names) {
  std::ofstream file(path("spaces"));
  for (const auto& name : names) file << name << "\n";
}

void DriverFixture::hangOn(const std::string& script) {
  std::ofstream(path("spaces.hang"), std::ios::app) << script << "\n";
}

bool DriverFixture::hangs() const {
  return eventually([this] { return std::filesystem::exists(path("spaces.hanging")); }, kLong);
}

std::vector<std::string> DriverFixture::linesOf(const std::string& name) const {
  std::vector<std::string> lines;
  std::ifstream file(path(name));
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> DriverFixture::spaces() const { return linesOf("spaces"); }

std::vector<std::string> DriverFixture::closedSpaces() const { return linesOf("spaces.closed"); }

std::vector<std::string> DriverFixture::texts(char level) const {
  std::vector<std::string> texts;
  for (const auto& line : log->lines()) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

std::vector<double> DriverFixture::gaps(const std::string& endpoint) const {
  std::vector<double> result;
  const auto requests = service.requests().list(endpoint);
  for (std::size_t i = 1; i < requests.size(); ++i) {
    const std::chrono::duration<double, std::milli> gap =
        requests[i].arrived - requests[i - 1].arrived;
    result.push_back(gap.count());
  }
  return result;
}

}  // namespace verdo::test
