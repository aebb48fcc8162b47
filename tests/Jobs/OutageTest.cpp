#include "tests/Support/DriverFixture.h"

#include <fmt/format.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::StartsWith;

class Outage : public DriverFixture {};

TEST_F(Outage, OutputOfAnOutageIsLostOrDoubled) {
  config.serveJobs = 1;
  for (const auto kind : {local::OutageKind::refuse, local::OutageKind::hang}) {
    const bool refused = kind == local::OutageKind::refuse;
    SCOPED_TRACE(refused ? "refused" : "hanging");
    forget();
    const auto id = startJob(waitScript(5000));
    // Right after a reply nothing is on its way that could be stored and yet count as failed.
    ASSERT_TRUE(waitForPosts(1));
    service.outage(kind, 500ms);
    // What the job prints while a post hangs, and then ends, comes in one more post.
    const auto posts = service.requests().count("lines");
    if (!refused) {
      ASSERT_TRUE(service.requests().waitFor("lines", posts + 1, kLong));
    }
    letGo();
    expectNumbered(id, 5000);
    EXPECT_EQ(finish(), ExitReason::clean());
    EXPECT_EQ(log->has("server unreachable, retrying: POST"), refused);
  }
}

TEST_F(Outage, JobThatIsNoLongerOursRunsOnOrAHiccupKillsIt) {
  const std::string refusal = R"({"ok": false, "state": "queued"})";
  const local::Fault hiccup{.endpoint = "lines",
                            .after = 1,
                            .count = 1,
                            .reply = local::FaultReply{.status = 200, .body = refusal},
                            .processed = true};
  service.faults().add(hiccup);
  const auto survivor = startJob(waitScript());
  ASSERT_TRUE(waitForPosts(1));
  service.faults().add(hiccup);
  ASSERT_TRUE(waitForPosts(3));
  letGo();
  EXPECT_EQ(doneJob(survivor).exitCode, 0);

  const auto id = addJob("deaf", {.taskSpace = "u1-a"});
  ASSERT_TRUE(hasPrinted(id));
  answerWith("lines", 200, refusal, 2);
  const std::string number = std::to_string(id);
  ASSERT_TRUE(observer->waitFor("finished " + number));
  EXPECT_TRUE(log->has("job " + number + ": no longer ours (state=queued); killing it"));
  EXPECT_TRUE(log->has("space 'u1-a': close -> exit 0"));
  EXPECT_EQ(service.jobs().find(id)->completePosts, 0u);
}

TEST_F(Outage, BodyOverAProxysLimitLosesTheJob) {
  service.faults().add(local::bodyLimit("lines", 5000));
  config.serveJobs = 1;
  letGo();
  const auto id = startJob(waitScript(300));  // 30 KB, once each and in order
  expectNumbered(id, 300);
  EXPECT_EQ(finish(), ExitReason::clean());
  EXPECT_FALSE(log->has("retrying"));

  // A single line is delivered in pieces.
  const auto longLine = startJob("long 20000");
  EXPECT_EQ(doneJob(longLine).exitCode, 0);
  const auto pieces = service.jobs().lines(longLine);
  EXPECT_EQ(fmt::format("{}", fmt::join(pieces, "")), std::string(20000, 'y'));
  EXPECT_GT(pieces.size(), 3u);
}

TEST_F(Outage, RefusalOfALineThatIsNeverCutLosesTheJob) {
  config.serveJobs = 1;
  config.llmBase = service.providerUrl();
  config.llmKey = service.providerKey();
  const local::Fault refusal{
      .endpoint = "lines", .count = 4, .bodyOver = 7000, .reply = local::FaultReply{.status = 413}};
  service.faults().add(refusal);
  const auto payload = fmt::format(R"({{"v": 1, "model": "m", "prompt": "{:x<20000}"}})", "");
  const auto id = addJob(payload, {.kind = "llm"});
  start();
  EXPECT_EQ(doneJob(id).exitCode, 0);
  EXPECT_EQ(service.jobs().lines(id).size(), 5u);
  EXPECT_EQ(finish(), ExitReason::clean());
}

TEST_F(Outage, PiecesOfABodyShareOneDeadline) {
  timings.postDeadline = 1s;
  config.serveJobs = 1;
  // Some two seconds after the first piece, one is refused once.
  service.faults().add({.endpoint = "lines",
                        .after = 16,
                        .count = 1,
                        .bodyOver = 100,
                        .reply = local::FaultReply{.status = 503}});
  service.faults().add(local::bodyLimit("lines", 5000));
  service.faults().add({.endpoint = "lines", .bodyOver = 100, .delay = 150ms});
  letGo();
  const auto id = startJob(waitScript(600));
  expectNumbered(id, 600);
  EXPECT_EQ(finish(), ExitReason::clean());
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

TEST_F(Outage, StoppingDriverKeepsRetryingForTheWholeTimeOrWithoutPauses) {
  service.faults().add({.endpoint = "complete", .delivery = local::Delivery::reset});
  timings.retryLongest = timings.retryFirst;
  timings.postDeadline = 60s;
  timings.postDeadlineStopping = 200ms;
  addJob("say a");
  start();
  ASSERT_TRUE(service.requests().waitFor("complete", 3, kLong));
  const auto before = service.requests().count("complete");
  EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
  EXPECT_LT(elapsed.count(), 5);
  EXPECT_LT(service.requests().count("complete"), before + 20) << "200 ms with pauses of 20 ms";
  EXPECT_TRUE(log->has("job 1: could not report completion: "));
}

TEST_F(Outage, ThrottledRequestIsTakenForDone) {
  for (const char* endpoint : {"poll", "lines", "complete"}) {
    answerWith(endpoint, 429, "slow down", 2);
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
  EXPECT_THAT(texts('w'), testing::Not(Contains(testing::HasSubstr("poll failed"))));
  EXPECT_EQ(log->lines().back().text, "job 1: finished with exit 0");
}

TEST_F(Outage, LostServerLeavesTheJobRunning) {
  timings.postDeadline = 150ms;
  for (const int status : {503, 426}) {
    SCOPED_TRACE(status);
    forget();
    const auto id = startJob("grandchild sleep 100", {.label = "mail"});
    answerWith("lines", status);
    const auto job = doneJob(id);
    EXPECT_EQ(job.exitCode, -SIGTERM);
    EXPECT_EQ(job.error, "driver lost the server mid-job");
    const std::string number = std::to_string(id);
    EXPECT_THAT(texts('e'),
                testing::ElementsAre(fmt::format("job {0}: lost the server, killing the job: POST "
                                                 "/api/driver/jobs/{0}/lines -> {1}: no",
                                                 id, status)));
    EXPECT_EQ(log->has("server unreachable, retrying"), status == 503);
    EXPECT_TRUE(
        observer->waitFor("finished " + number + " mail -15 driver lost the server mid-job"));
    EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    EXPECT_TRUE(log->has("job " + number + ": finished with exit -15 (cancelled)"));
  }
}

TEST_F(Outage, LostServerLeavesAReaderWaitingForRoom) {
  const auto id = startJob("flood 100000000000", {.keepLines = false});
  answerWith("lines", 426);
  EXPECT_EQ(doneJob(id).error, "driver lost the server mid-job");
}

TEST_F(Outage, TokenRevokedInTheMiddleOfAJobIsNotTheEnd) {
  startJob("sleep 100", {.label = "mail"});
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

TEST_F(Outage, TokenRevokedAtTheEndsOfAJobIsNotTheEnd) {
  config.serveJobs = 1;
  for (const char* endpoint : {"lines", "complete"}) {
    forget();
    answerWith(endpoint, 401);
    const auto id = addJob("say a");
    EXPECT_EQ(run().code(), 3);
    EXPECT_TRUE(log->has(fmt::format("POST /api/driver/jobs/{}/{} -> 401: no", id, endpoint)));
  }
}

}  // namespace
}  // namespace verdo::test
