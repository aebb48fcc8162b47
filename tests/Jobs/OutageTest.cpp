#include "tests/Support/DriverFixture.h"
#include "tests/Support/ExecutorRole.h"

#include <fstream>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::Delivery;
using local::FaultReply;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class Outage : public DriverFixture {
 protected:
  /// A job that has printed "ready", and has had it reported.
  std::int64_t startJob(const std::string& script, local::JobSpec spec = {.label = "mail"}) {
    const auto id = addJob(script, std::move(spec));
    start();
    EXPECT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
    return id;
  }
  std::string waitScript(int lines = 0) const {
    return "wait '" + path("go") + "' " + std::to_string(lines);
  }
  void letGo() const { std::ofstream(path("go")) << ""; }

  static void expectNumbered(const std::vector<std::string>& lines, int count) {
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(count + 1));
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(lines[static_cast<std::size_t>(i + 1)], numberedLine(i));
    }
  }
};

TEST_F(Outage, OutputOfAnOutageIsLostOrDoubled) {
  for (const auto kind : {local::OutageKind::refuse, local::OutageKind::hang}) {
    const bool refused = kind == local::OutageKind::refuse;
    SCOPED_TRACE(refused ? "refused" : "hanging");
    std::remove(path("go").c_str());
    config.serveJobs = 1;
    service.reset();
    const auto id = startJob(waitScript(5000));
    // Right after a reply nothing is on its way that could be stored and yet count as failed.
    ASSERT_TRUE(
        service.requests().waitForReply("lines", service.requests().count("lines") + 1, kLong));
    service.outage(kind, 500ms);
    letGo();
    EXPECT_EQ(doneJob(id).exitCode, 0);
    expectNumbered(service.jobs().lines(id), 5000);
    EXPECT_EQ(finish(), ExitReason::clean());
    EXPECT_EQ(log->has("server unreachable, retrying: POST"), refused);
    log = std::make_shared<RecordingLog>();
  }
}

TEST_F(Outage, JobThatIsNoLongerOursRunsOnOrAHiccupKillsIt) {
  const FaultReply refusal{.status = 200, .body = R"({"ok": false, "state": "queued"})"};
  service.faults().add(
      {.endpoint = "lines", .after = 1, .count = 1, .reply = refusal, .processed = true});
  const auto survivor = startJob(waitScript());
  letGo();
  EXPECT_EQ(doneJob(survivor).exitCode, 0);

  const auto id = addJob("deaf", {.label = "other", .taskSpace = "u1-a"});
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
  service.faults().add({.endpoint = "lines", .count = 2, .reply = refusal});
  const std::string number = std::to_string(id);
  ASSERT_TRUE(observer->waitFor("finished " + number));
  EXPECT_TRUE(log->has("job " + number + ": no longer ours (state=queued); killing it"));
  EXPECT_TRUE(log->has("space 'u1-a': close -> exit 0"));
  EXPECT_EQ(service.jobs().find(id)->completePosts, 0u);
}

TEST_F(Outage, BodyOverAProxysLimitLosesTheJob) {
  service.faults().add(local::bodyLimit("lines", 5000));
  config.serveJobs = 1;
  const auto id = addJob("wait '" + path("go") + "' 300", {.label = "mail"});
  letGo();
  start();
  EXPECT_EQ(doneJob(id).exitCode, 0);
  expectNumbered(service.jobs().lines(id), 300);  // 30 KB, once each and in order
  EXPECT_EQ(finish(), ExitReason::clean());
  EXPECT_FALSE(log->has("retrying"));

  // A single line is delivered in pieces.
  const auto longLine = addJob("long 20000", {.label = "mail"});
  start();
  EXPECT_EQ(doneJob(longLine).exitCode, 0);
  std::string joined;
  for (const auto& line : service.jobs().lines(longLine)) joined += line;
  EXPECT_EQ(joined, std::string(20000, 'y'));
  EXPECT_GT(service.jobs().lines(longLine).size(), 3u);
}

TEST_F(Outage, CompletionOverAProxysLimitIsNeverTold) {
  service.faults().add(local::bodyLimit("complete", 2000));
  config.serveJobs = 1;
  const auto id = addJob(R"({"v": ")" + std::string(5000, 'x') + R"("})", {.kind = "llm"});
  start();
  const auto job = doneJob(id);
  EXPECT_EQ(job.exitCode, 127);
  EXPECT_THAT(job.error.value_or(""), StartsWith("bad llm payload: ValueError: unsupported"));
  EXPECT_EQ(job.error.value_or("").size(), 1000u);
}

TEST_F(Outage, StoppingDriverKeepsRetryingForTheWholeTime) {
  service.faults().add({.endpoint = "complete", .delivery = Delivery::reset});
  timings.retryLongest = timings.retryFirst;
  timings.postDeadline = 60s;
  addJob("say a");
  start();
  ASSERT_TRUE(service.requests().waitFor("complete", 3, kLong));
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), 5);
  EXPECT_TRUE(log->has("job 1: could not report completion: "));
}

TEST_F(Outage, ThrottledRequestIsTakenForDone) {
  const FaultReply throttled{.status = 429, .body = "slow down"};
  for (const char* endpoint : {"poll", "lines", "complete"}) {
    service.faults().add({.endpoint = endpoint, .after = 0, .count = 2, .reply = throttled});
  }
  config.serveJobs = 1;
  const auto id = addJob("number 100");
  EXPECT_EQ(run(), ExitReason::clean());
  EXPECT_EQ(service.jobs().lines(id).size(), 100u);
  EXPECT_EQ(service.jobs().find(id)->linesPosts, service.requests().count("lines") - 2);
  EXPECT_EQ(service.requests().count("complete"), 3u);
  EXPECT_EQ(service.requests().count("poll"), 3u);
  EXPECT_THAT(texts('w'), Contains("server unreachable, retrying: POST /api/driver/jobs/1/complete "
                                   "-> 429: slow down"));
  EXPECT_THAT(texts('w'), Not(Contains(HasSubstr("poll failed"))));
  EXPECT_EQ(log->lines().back().text, "job 1: finished with exit 0");
}

TEST_F(Outage, LostServerLeavesTheJobRunning) {
  struct Case {
    local::Fault fault;
    const char* message;
    bool retried;
  };
  const Case cases[] = {
      {{.delivery = Delivery::reset}, "-> URLError: ", true},
      {{.delivery = Delivery::garbage}, "-> URLError: ", true},
      {{.reply = FaultReply{.status = 503, .body = "down"}}, "-> 503: down", true},
      {{.reply = FaultReply{.status = 200, .body = "[]"}},
       "-> JSONDecodeError: body is not an object",
       true},
      {{.reply = FaultReply{.status = 426, .body = "update"}}, "-> 426: update", false},
  };
  timings.postDeadline = 150ms;
  for (auto row : cases) {
    SCOPED_TRACE(row.message);
    service.reset();
    log = std::make_shared<RecordingLog>();
    observer = std::make_shared<RecordingObserver>();
    const auto id = startJob("grandchild sleep 100");
    row.fault.endpoint = "lines";
    service.faults().add(row.fault);
    const auto job = doneJob(id);
    EXPECT_EQ(job.exitCode, -SIGTERM);
    EXPECT_EQ(job.error, "driver lost the server mid-job");
    const std::string number = std::to_string(id);
    EXPECT_THAT(texts('e'), testing::ElementsAre(StartsWith("job " + number +
                                                            ": lost the server, killing the job: "
                                                            "POST /api/driver/jobs/" +
                                                            number + "/lines " + row.message)));
    EXPECT_EQ(log->has("server unreachable, retrying"), row.retried);
    EXPECT_TRUE(
        observer->waitFor("finished " + number + " mail -15 driver lost the server mid-job"));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_TRUE(log->has("job " + number + ": finished with exit -15 (cancelled)"));
  }
}

TEST_F(Outage, TokenRevokedInTheMiddleOfAJobIsNotTheEnd) {
  startJob("sleep 100");
  service.jobs().add({.label = "mail"});  // stays queued: its lane is busy
  ASSERT_TRUE(service.requests().waitFor("poll", 2, kLong));
  service.driverToken().revoke();
  const auto reason = finish();
  EXPECT_EQ(reason, ExitReason::tokenRevoked(
                        "driver token revoked — issue a new one in the UI (Browser driver card)"));
  EXPECT_TRUE(observer->waitFor("finished 1 mail -15 driver token revoked mid-job"));
  EXPECT_EQ(service.requests().count("complete"), 0u);
  // The poll that was in flight does not hold the run up.
  EXPECT_TRUE(service.requests().waitForHangUps("poll", 1, kLong));
  ASSERT_EQ(texts('e').size(), 2u);
  EXPECT_THAT(texts('e')[0], StartsWith("job 1: POST /api/driver/jobs/1/lines -> 401: "));
  EXPECT_EQ(texts('e')[1], reason.message());
}

TEST_F(Outage, TokenRevokedAtTheCompletionIsNotTheEnd) {
  service.faults().add({.endpoint = "complete", .reply = FaultReply{.status = 401, .body = "no"}});
  addJob("say a");
  EXPECT_EQ(run().code(), 3);
  EXPECT_TRUE(
      log->has("job 1: could not report completion: POST "
               "/api/driver/jobs/1/complete -> 401: no"));
}

}  // namespace
}  // namespace verdo::test
