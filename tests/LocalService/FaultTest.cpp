#include "LocalService/LocalService.h"
#include "tests/LocalService/RawClient.h"

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace verdo::local::test {
namespace {

using namespace std::chrono_literals;
using testing::StartsWith;

class Faulty : public testing::Test {
 protected:
  Faulty() { service.start(); }
  LocalService service;
};

TEST_F(Faulty, EachDeliveryIsSeenByTheClientAsWhatItIs) {
  const FaultReply reply{.status = 200, .body = R"({"a":1})"};
  struct Case {
    const char* what;
    Fault fault;
    Seen::End end;
    int status;
    std::string body;
  };
  const std::vector<Case> cases = {
      {"status", {.reply = FaultReply{.status = 500, .body = "x"}}, Seen::End::reply, 500, "x"},
      {"no body", {.reply = FaultReply{.status = 429}}, Seen::End::reply, 429, ""},
      {"raw body", {.reply = FaultReply{.body = "[[\xff"}}, Seen::End::reply, 200, "[[\xff"},
      {"reset", {.delivery = Delivery::reset}, Seen::End::reset, 0, ""},
      {"close", {.delivery = Delivery::close}, Seen::End::closed, 0, ""},
      {"garbage",
       {.delivery = Delivery::garbage, .garbage = "\x01zz"},
       Seen::End::closed,
       0,
       "\x01zz"},
      {"truncated",
       {.reply = reply, .delivery = Delivery::truncated, .truncateAfter = 3},
       Seen::End::closed,
       200,
       R"({"a)"},
      {"trickled",
       {.reply = reply, .delivery = Delivery::trickled, .bytesPerSecond = 5000},
       Seen::End::reply,
       200,
       R"({"a":1})"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    auto fault = test.fault;
    fault.count = 1;
    const auto id = service.addFault(fault);
    Driver driver(service);
    const auto seen = driver.hello();
    EXPECT_EQ(seen.end, test.end);
    EXPECT_EQ(seen.status, test.status);
    EXPECT_EQ(seen.body, test.body);
    EXPECT_EQ(service.faultHits(id), 1u);
    const auto record = service.waitForReply("hello", service.requestCount("hello"), 5s);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->status, test.status);
    EXPECT_EQ(record->fault, id);
    EXPECT_EQ(Driver(service).hello().status, 200) << "the fault applies once";
  }
}

TEST_F(Faulty, WholeFaultReplyKeepsTheConnectionAndItsHeaderOrder) {
  service.addFault(
      {.count = 1,
       .reply =
           FaultReply{.status = 302, .headers = {{"X-B", "1"}, {"Location", "/x"}, {"X-A", "2"}}}});
  Driver driver(service);
  EXPECT_THAT(driver.hello().head,
              StartsWith("HTTP/1.1 302 \r\nX-B: 1\r\nLocation: /x\r\nX-A: 2\r\n"));
  EXPECT_EQ(driver.hello().status, 200);
  EXPECT_EQ(service.acceptedConnections(), 1u);
}

TEST_F(Faulty, OnlyProcessedRequestsTakeEffect) {
  for (const auto delivery :
       {Delivery::reset, Delivery::close, Delivery::garbage, Delivery::whole}) {
    for (const bool processed : {false, true}) {
      SCOPED_TRACE(testing::Message() << int(delivery) << " processed " << processed);
      service.reset();
      const auto id = service.addJob();
      Driver driver(service);
      ASSERT_EQ(driver.lease(), id);
      Fault fault{.endpoint = "lines", .jobId = id, .delivery = delivery, .processed = processed};
      if (delivery == Delivery::whole) fault.reply = FaultReply{.status = 503};
      service.addFault(fault);
      driver.lines(id, R"({"lines":["x"]})");
      EXPECT_EQ(service.job(id)->lineCount, processed ? 1u : 0u);
    }
  }
}

TEST_F(Faulty, LostPollReplyKeepsTheLeaseAndAFaultedPollTakesNone) {
  const auto id = service.addJob();
  service.addFault({.endpoint = "poll", .count = 1, .delivery = Delivery::reset});
  EXPECT_EQ(Driver(service).poll().end, Seen::End::reset);
  EXPECT_EQ(service.job(id)->state, JobState::queued);
  service.addFault(
      {.endpoint = "poll", .count = 1, .delivery = Delivery::close, .processed = true});
  EXPECT_EQ(Driver(service).poll().end, Seen::End::closed);
  EXPECT_EQ(service.job(id)->state, JobState::leased);

  // The same when the client does not wait for the late reply.
  const auto second = service.addJob();
  service.addFault({.endpoint = "poll", .delay = 60s, .processed = true});
  Driver leaving(service);
  leaving.start("GET", "/api/driver/poll?wait=0");
  ASSERT_TRUE(service.waitFor(second, JobState::leased, 5s));
  leaving.client().close();
  ASSERT_TRUE(service.waitForHangUps("poll", 1, 5s));
  EXPECT_EQ(service.job(second)->state, JobState::leased);
}

TEST_F(Faulty, FaultsPickTheirRequests) {
  service.addFault(
      {.endpoint = "hello", .after = 1, .count = 2, .reply = FaultReply{.status = 500}});
  Driver driver(service);
  std::vector<int> statuses;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(driver.poll().status, 204);
    statuses.push_back(driver.hello().status);
  }
  EXPECT_THAT(statuses, testing::ElementsAre(200, 500, 500, 200, 200));

  service.addFault({.jobId = 7, .reply = FaultReply{.status = 500}});
  EXPECT_EQ(driver.lines(7).status, 500);
  EXPECT_EQ(driver.lines(8).status, 200);
  EXPECT_EQ(driver.hello().status, 200);
  EXPECT_THROW(service.addFault({.probability = 1.5}), std::invalid_argument);
  EXPECT_THROW(service.addFault({.reply = FaultReply{.status = 99}}), std::invalid_argument);
}

TEST(FaultProbability, IsRepeatableAndAboutRight) {
  const auto run = [](std::uint64_t seed) {
    LocalService service({.seed = seed});
    service.start();
    service.addFault({.probability = 0.3, .reply = FaultReply{.status = 500}});
    Driver driver(service);
    std::string pattern;
    for (int i = 0; i < 300; ++i) pattern += driver.hello().status == 500 ? 'x' : '.';
    return pattern;
  };
  const auto pattern = run(5);
  EXPECT_EQ(pattern, run(5));
  EXPECT_NE(pattern, run(6));
  EXPECT_NEAR(static_cast<double>(std::ranges::count(pattern, 'x')), 90, 40);
}

TEST_F(Faulty, DelayAndTrickleTakeTheirTime) {
  service.addFault({.endpoint = "hello", .delay = 120ms});
  Driver driver(service);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(driver.hello().status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 120ms);
  service.clearFaults();

  service.addFault({.endpoint = "hello", .delivery = Delivery::trickled, .bytesPerSecond = 1000});
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(driver.hello().json()["protocol"], 2);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
}

TEST_F(Faulty, ClientThatLeavesDuringADelayIsNoticed) {
  service.addFault({.endpoint = "hello", .delay = 60s});
  Driver driver(service);
  driver.start("GET", "/api/driver/hello");
  ASSERT_TRUE(service.waitForRequest("hello", 1, 5s));
  driver.client().close();
  EXPECT_TRUE(service.waitForHangUps("hello", 1, 5s));
  EXPECT_TRUE(service.waitForConnections(0, 5s));
}

TEST_F(Faulty, RefusingServiceDropsAllAndComesBackOnItsPort) {
  Driver waiting(service);
  waiting.start("GET", "/api/driver/poll?wait=30");
  ASSERT_TRUE(service.waitForRequest("poll", 1, 5s));
  const auto start = std::chrono::steady_clock::now();
  service.outage(OutageKind::refuse, 300ms);
  EXPECT_EQ(RawClient(service.port()).connectError(), ECONNREFUSED);
  EXPECT_EQ(waiting.finish().end, Seen::End::closed);
  while (RawClient(service.port()).connectError() != 0) {
    ASSERT_LT(std::chrono::steady_clock::now() - start, 5s);
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
  EXPECT_EQ(Driver(service).hello().status, 200);

  service.outage(OutageKind::refuse, 1h);
  service.endOutage();
  EXPECT_EQ(Driver(service).hello().status, 200);
}

TEST_F(Faulty, HangingServiceAcceptsAndAnswersWhenItIsOver) {
  Driver polling(service);
  polling.start("GET", "/api/driver/poll?wait=30");
  ASSERT_TRUE(service.waitForRequest("poll", 1, 5s));
  service.outage(OutageKind::hang, 250ms);
  const auto start = std::chrono::steady_clock::now();
  const auto id = service.addJob();
  EXPECT_EQ(Driver(service).hello().status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 200ms);
  EXPECT_EQ(Driver::jobOf(polling.finish()), id);
  EXPECT_GE(*service.job(id)->leased - start, 200ms) << "nothing is leased meanwhile";

  service.outage(OutageKind::hang, 1h);
  Driver leaving(service);
  leaving.start("GET", "/api/driver/hello");
  ASSERT_TRUE(service.waitForRequest("hello", 2, 5s));
  leaving.client().close();
  EXPECT_TRUE(service.waitForHangUps("hello", 1, 5s));
}

}  // namespace
}  // namespace verdo::local::test
