#include "tests/Support/DriverFixture.h"
#include "tests/Support/ExecutorRole.h"
#include "tests/Support/Front.h"

#include <fstream>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// A run that reaches the service by a road which can die without anybody being told.
class SilentPathJob : public DriverFixture {
 protected:
  SilentPathJob() {
    // Long enough for replies that come: a post whose reply is late is rightly sent again.
    timings.pollMargin = timings.postTimeout = kSanitized ? 2000ms : 400ms;
    if (kSanitized) timings.postDeadline = 20s;
    timings.pingTimeout = 200ms;
    config.pollWait = 1;
  }
  void TearDown() override {
    if (runner) stopAndFinish();
    runner.reset();
    front.reset();
    DriverFixture::TearDown();
  }
  void startBehind(const Certificates* used) {
    front = std::make_unique<Front>(service.port(), used);
    config.server = front->url();
    if (used) config.caCertPath = used->authority();
    id = addJob("wait '" + path("go") + "' 5000");
    start();
    EXPECT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
    // Right after a reply nothing is on its way that could be stored and yet count as failed.
    EXPECT_TRUE(
        service.requests().waitForReply("lines", service.requests().count("lines") + 1, kLong));
  }
  /// Lets the job print the rest and end, and waits for both.
  void finishJob() {
    std::ofstream(path("go")) << "";
    EXPECT_EQ(doneJob(id).exitCode, 0);
    const auto lines = service.jobs().lines(id);
    ASSERT_EQ(lines.size(), 5001u);
    for (int i = 0; i < 5000; ++i) {
      ASSERT_EQ(lines[static_cast<std::size_t>(i + 1)], numberedLine(i));
    }
  }

  const Certificates certificates;
  std::unique_ptr<Front> front;
  std::int64_t id = 0;
};

TEST_F(SilentPathJob, IsLostBehindARoadThatOnlyAcknowledges) {
  for (const auto* used : {&certificates, static_cast<const Certificates*>(nullptr)}) {
    SCOPED_TRACE(used ? "HTTP/2" : "HTTP/1.1");
    service.reset();
    std::remove(path("go").c_str());
    startBehind(used);
    front->swallow();
    const auto polls = service.requests().count("poll");
    finishJob();
    EXPECT_TRUE(service.requests().waitFor("poll", polls + 1, kLong));
    stopAndFinish();
    runner.reset();
  }
}

TEST_F(SilentPathJob, HearsOfAChangeOfTheNetwork) {
  startBehind(&certificates);
  const auto polls = service.requests().count("poll");
  front->swallow();
  runner->networkChanged();
  EXPECT_TRUE(service.requests().waitFor("poll", polls + 1, 500ms));
  finishJob();
  for (const auto& text : texts('w')) EXPECT_THAT(text, Not(HasSubstr("poll failed")));
  for (const auto& text : texts('w')) EXPECT_THAT(text, Not(HasSubstr("unreachable")));
  for (const auto& event : observer->events()) EXPECT_THAT(event, Not(StartsWith("retrying")));
}

}  // namespace
}  // namespace verdo::test
