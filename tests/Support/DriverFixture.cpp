#include "tests/Support/DriverFixture.h"

#include "VerdoDriverCore/System/ThreadName.h"
#include "tests/Support/ExecutorRole.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Misbehaviour.h"

#include <filesystem>

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
    : descriptorsBefore_(openDescriptors().size()),
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
  EXPECT_TRUE(eventually([&] { return threadNames().size() <= threadsBefore_; }, kLong))
      << "left: " << testing::PrintToString(threadNames());
  EXPECT_TRUE(eventually([&] { return openDescriptors().size() <= descriptorsBefore_; }))
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
  scaled.minAttemptStopping = 20ms;
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

std::int64_t DriverFixture::startJob(const std::string& script, local::JobSpec spec) {
  const auto id = addJob(script, std::move(spec));
  start();
  EXPECT_TRUE(hasPrinted(id));
  return id;
}

bool DriverFixture::hasPrinted(std::int64_t id) const {
  return service.jobs().waitFor(id, [](const auto& job) { return job.lineCount > 0; }, kLong);
}

std::string DriverFixture::waitScript(int lines) const {
  return "wait '" + path("go") + "' " + std::to_string(lines);
}

void DriverFixture::letGo() const { std::ofstream(path("go")) << ""; }

void DriverFixture::expectNumbered(std::int64_t id, int count) {
  EXPECT_EQ(doneJob(id).exitCode, 0);
  std::vector<std::string> expected{"ready"};
  for (int i = 0; i < count; ++i) expected.push_back(numberedLine(i));
  EXPECT_TRUE(service.jobs().lines(id) == expected) << "lost, doubled or out of order";
}

bool DriverFixture::waitForPosts(std::uint64_t more) const {
  const auto before = service.requests().count("lines");
  return service.requests().waitForReply("lines", before + more, kLong).has_value();
}

void DriverFixture::answerWith(const std::string& endpoint, int status, const std::string& body,
                               std::optional<std::uint64_t> count) {
  service.faults().add({.endpoint = endpoint,
                        .count = count,
                        .reply = local::FaultReply{.status = status, .body = body}});
}

void DriverFixture::forget() {
  service.reset();
  log = std::make_shared<RecordingLog>();
  observer = std::make_shared<RecordingObserver>();
  for (const char* name : {"go", "spaces", "spaces.closed", "spaces.hang", "spaces.hanging"}) {
    std::filesystem::remove(path(name));
  }
}

local::JobSnapshot DriverFixture::doneJob(std::int64_t id) {
  EXPECT_TRUE(service.jobs().waitFor(id, local::JobState::done, kLong)) << "job " << id;
  return *service.jobs().find(id);
}

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
    result.push_back(1000 * toSeconds(requests[i].arrived - requests[i - 1].arrived));
  }
  return result;
}

}  // namespace verdo::test
