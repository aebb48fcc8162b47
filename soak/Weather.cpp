#include "soak/Weather.h"

#include <utility>

#include <signal.h>

namespace verdo::soak {

using namespace std::chrono_literals;

namespace {

using local::Delivery;
using local::Fault;
using local::FaultReply;

/// An unanswered post is given up after 45 s, a poll a little sooner.
constexpr auto kUntilNoticed = 50s;

}  // namespace

void Weather::add(double probability, Fault fault) {
  fault.probability = std::min(probability * options_.storm, 0.3);
  const auto id = service_.faults().add(fault);
  evidence_.addFault(id, fault);
}

/// What may happen to any request without its having taken effect.
void Weather::addAll(const char* endpoint, double rate) {
  for (const int status : {500, 502, 503, 504, 429}) {
    add(rate, {.endpoint = endpoint,
               .reply = FaultReply{.status = status,
                                   .body = "<html>not now</html>",
                                   .headers = {{"Content-Type", "text/html"}}}});
  }
  add(rate, {.endpoint = endpoint, .reply = FaultReply{.status = 200, .body = "{\"ok\": tr"}});
  for (const auto delivery : {Delivery::reset, Delivery::close, Delivery::garbage}) {
    add(rate, {.endpoint = endpoint, .delivery = delivery});
  }
  add(2 * rate, {.endpoint = endpoint, .delay = 300ms});
  add(rate, {.endpoint = endpoint, .delay = 2s});
}

void Weather::begin() {
  for (const char* endpoint : {"lines", "complete"}) {
    addAll(endpoint, 0.003);
    add(0.003, {.endpoint = endpoint, .reply = FaultReply{.status = 413, .body = "too large"}});
    // The post takes effect, and its reply is lost.
    add(0.003, {.endpoint = endpoint, .delivery = Delivery::truncated});
    add(0.003, {.endpoint = endpoint, .delivery = Delivery::reset, .processed = true});
    add(0.003, {.endpoint = endpoint, .delivery = Delivery::close, .processed = true});
    add(0.003, {.endpoint = endpoint,
                .reply = FaultReply{.status = 502, .body = "bad gateway"},
                .processed = true});
    add(0.003, {.endpoint = endpoint, .delay = 1500ms, .processed = true});
    add(0.003, {.endpoint = endpoint, .delivery = Delivery::trickled, .bytesPerSecond = 60});
  }
  // A proxy that takes less than a batch may hold.
  const auto limit = local::bodyLimit("lines", 256 << 10);
  evidence_.addFault(service_.faults().add(limit), limit);
  addAll("poll", 0.0015);
  add(0.003, {.endpoint = "poll", .delivery = Delivery::trickled, .bytesPerSecond = 200});
  addAll("files", 0.005);
  add(0.005, {.endpoint = "files", .delivery = Delivery::truncated, .truncateAfter = 100});
  add(0.01, {.endpoint = "files", .delivery = Delivery::trickled, .bytesPerSecond = 20'000});
  addAll("chat", 0.008);
  add(0.008, {.endpoint = "chat", .delivery = Delivery::truncated, .truncateAfter = 100});
  add(0.008, {.endpoint = "chat", .delivery = Delivery::trickled, .bytesPerSecond = 20'000});
  const auto now = Clock::now();
  nextOutage_ = now + (options_.brief ? 6s : 15s);
  nextSuspend_ = now + (options_.brief ? 3s : 10s);
  nextOnRoad_ = now + (options_.brief ? 5s : 20s);
}

void Weather::worsen() {
  add(0.001, {.endpoint = "poll", .delivery = Delivery::truncated});
  add(0.001, {.endpoint = "poll", .delivery = Delivery::reset, .processed = true});
  if (!options_.brief) longSuspend_ = Clock::now() + 30s;
}

Clock::time_point Weather::after(int least, int most) {
  return Clock::now() + std::chrono::seconds(between(random_, least, most));
}

void Weather::tick(Clock::time_point now, const test::Program& driver, test::Front* front) {
  if (suspendedUntil_) {
    if (now < *suspendedUntil_) return;
    clear(driver);
  }
  if (now >= nextOutage_) outage(now);
  if (now >= nextSuspend_ || (longSuspend_ && now >= *longSuspend_)) suspend(now, driver);
  if (front && now >= nextOnRoad_) disturbRoad(now, *front);
}

void Weather::clear(const test::Program& driver) {
  if (suspendedUntil_) driver.signal(SIGCONT);
  suspendedUntil_.reset();
}

void Weather::outage(Clock::time_point now) {
  const auto kind = chance(random_, 0.5) ? local::OutageKind::refuse : local::OutageKind::hang;
  const Milliseconds time(between(random_, 500, options_.brief ? 2500 : 9000));
  service_.outage(kind, time);
  // After an outage the driver waits for as long again before it tries anew.
  evidence_.addDisturbance({now, now + time + 200ms, now + 3 * time + 5s});
  ++counts_.outages;
  nextOutage_ = options_.brief ? after(8, 15) : after(25, 50);
}

void Weather::suspend(Clock::time_point now, const test::Program& driver) {
  const bool isLong = longSuspend_ && now >= *longSuspend_;
  const Milliseconds time =
      isLong ? options_.lease + 5s : Milliseconds(between(random_, 200, 4000));
  driver.signal(SIGSTOP);
  suspendedUntil_ = now + time;
  evidence_.addDisturbance({now, now + time + 200ms, now + time + 5s});
  if (isLong) longSuspend_.reset();
  ++(isLong ? counts_.longSuspends : counts_.suspends);
  nextSuspend_ = options_.brief ? after(6, 12) : after(20, 40);
}

void Weather::disturbRoad(Clock::time_point now, test::Front& front) {
  if (options_.way == Way::dying) {
    counts_.deadPaths += front.swallow();
    evidence_.addDisturbance({now - 200ms, Clock::now() + 200ms, now + kUntilNoticed});
    nextOnRoad_ = after(70, 110);
    return;
  }
  const int kind = between(random_, 0, 2);
  counts_.resets += kind == 0 ? front.refuse() : kind == 1 ? front.reset() : front.leave();
  evidence_.addDisturbance({now - 200ms, Clock::now() + 200ms, now + 5s});
  nextOnRoad_ = options_.brief ? after(3, 7) : after(5, 15);
}

}  // namespace verdo::soak
