#include "tests/Support/DriverFixture.h"
#include "tests/Support/Front.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::Not;

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
    id = startJob(waitScript(5000));
    // Right after a reply nothing is on its way that could be stored and yet count as failed.
    EXPECT_TRUE(waitForPosts(1));
  }

  const Certificates certificates;
  std::unique_ptr<Front> front;
  std::int64_t id = 0;
};

TEST_F(SilentPathJob, IsLostBehindARoadThatOnlyAcknowledges) {
  for (const auto* used : {&certificates, static_cast<const Certificates*>(nullptr)}) {
    SCOPED_TRACE(used ? "HTTP/2" : "HTTP/1.1");
    forget();
    startBehind(used);
    front->swallow();
    const auto polls = service.requests().count("poll");
    letGo();
    expectNumbered(id, 5000);
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
  letGo();
  expectNumbered(id, 5000);
  for (const auto& text : texts('w'))
    EXPECT_THAT(text, Not(testing::ContainsRegex("failed|unreachable")));
  EXPECT_THAT(observer->events(), Not(testing::Contains(testing::StartsWith("retrying"))));
}

}  // namespace
}  // namespace verdo::test
