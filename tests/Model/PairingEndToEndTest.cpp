#include "LocalService/LocalService.h"
#include "VerdoDriver/App/FileLog.h"
#include "VerdoDriver/Model/PairFlow.h"
#include "VerdoDriver/Model/PairingClient.h"
#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/Process/Which.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/ManualClock.h"
#include "tests/Support/TempDir.h"

#include <sstream>

#include <gmock/gmock.h>
#include <httplib.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// Presses a button of the approve page in a headless browser; gives the text of the next page.
std::string press(const std::string& url, const char* button) {
  const auto node = Which::find("node").value();
  const auto child =
      Spawn::launch(node, {node, VERDO_APPROVE_SCRIPT, url, button}, currentEnvironment(), true);
  std::string text;
  LineReader reader(child->takeStdout(), [&](auto lines) {
    for (const auto line : lines) text.append(line).append("\n");
  });
  reader.start();
  EXPECT_TRUE(reader.done().waitFor(50s));
  EXPECT_EQ(child->wait(), 0) << text;
  return text;
}

/// The app's side of pairing, whole, against the service; time passes when the test says so.
class Pairing : public testing::Test {
 protected:
  Pairing() {
    service.start();
    service.pairings().setRules({.interval = 2s, .username = "ann"});
  }
  void TearDown() override {
    for (const auto& line : appLog.lines()) EXPECT_THAT(line, Not(HasSubstr(service.token())));
    EXPECT_TRUE(log->flush());
    EXPECT_THAT(contentOf(log->path()), Not(HasSubstr(service.token())));
  }

  /// Begins a pairing; gives the code that the user sees.
  std::string begin() {
    opened.clear();
    received.clear();
    flow.start(service.url() + "/", false,
               [this](const auto& token, const auto& user) { received = user + ":" + token; });
    EXPECT_TRUE(spinUntil([&] { return !opened.empty(); }));
    const auto* waiting = std::get_if<PairingWaiting>(&flow.state());
    return waiting ? waiting->userCode : "";
  }
  /// Lets the time of one poll pass, and the poll end.
  void poll(Clock::Duration time = 2s) {
    clock->advance(time);
    EXPECT_TRUE(spinUntil([&] {
      return clock->pendingCount() == 1 || !std::holds_alternative<PairingWaiting>(flow.state());
    }));
  }
  std::string failure() const {
    const auto* failed = std::get_if<PairingFailed>(&flow.state());
    return failed ? failed->message : "";
  }
  bool isWaiting() const { return std::holds_alternative<PairingWaiting>(flow.state()); }
  /// The lines of the file log, without their times.
  std::vector<std::string> lines() const {
    EXPECT_TRUE(log->flush());
    std::istringstream text(contentOf(log->path()));
    std::vector<std::string> all;
    for (std::string line; std::getline(text, line);) all.push_back(line.substr(20));
    return all;
  }

  TempDir directory;
  local::LocalService service;
  AppLogCapture appLog;
  std::shared_ptr<FileLog> log = std::make_shared<FileLog>(directory.path());
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::string opened;
  std::string received;
  PairFlow flow{std::make_shared<PairingClient>("app/1.2.3"),
                [this](const std::string& url) { opened = url; },
                [] { return std::string("Ann's <computer>"); }, log, clock};
};

TEST_F(Pairing, IsNotApprovedInTheBrowser) {
  const auto code = begin();
  // What another site sends in the user's name lacks what only the page knows.
  httplib::Client other("127.0.0.1", service.port());
  EXPECT_EQ(other
                .Post(opened.substr(service.url().size()), "decision=approve",
                      "application/x-www-form-urlencoded")
                ->status,
            403);
  poll();
  EXPECT_TRUE(isWaiting());
  EXPECT_THAT(press(opened, "Approve"), HasSubstr("Ann's <computer>"));
  poll();
  EXPECT_EQ(flow.state(), PairingState(PairingConnecting{"ann"}));
  EXPECT_EQ(received, "ann:" + service.token());
  const auto token = "····" + service.token().substr(service.token().size() - 4);
  EXPECT_THAT(
      lines(),
      ElementsAre("» pairing with " + service.url() + " — asking for a code",
                  "» pairing code " + code + " — approve it in the browser (" + opened + ")",
                  "» pairing approved as ann — token " + token + " received, checking it"));
  EXPECT_EQ(service.requests().list("pair-start").front().body, R"({"host": "Ann's <computer>"})");
}

TEST_F(Pairing, IsNotDeniedInTheBrowser) {
  begin();
  press(opened, "Deny");
  poll();
  EXPECT_EQ(failure(), "Denied in the browser — nothing was connected.");
  EXPECT_EQ(received, "");
}

TEST_F(Pairing, EndsWronglyWhenTheServiceMisbehaves) {
  const auto replying = [this](int status, const char* body = R"({"detail": "why"})") {
    service.faults().add(
        {.endpoint = "pair-poll", .count = 1, .reply = FaultReply{.status = status, .body = body}});
  };
  const struct {
    const char* what;
    std::function<void(const std::string& code)> prepare;
    const char* failure;  ///< "": the pairing goes on
  } table[] = {
      {"expired", [this](const auto& code) { service.pairings().expire(code); },
       "The request expired before it was approved — press Connect to website again."},
      {"403", [=](const auto&) { replying(403); }, "The server refused the request: HTTP 403: why"},
      {"429", [=](const auto&) { replying(429); }, ""},
      {"500", [=](const auto&) { replying(500, "<html>"); }, ""},
      {"no status", [=](const auto&) { replying(200, "{}"); }, ""},
      {"garbage",
       [this](const auto&) {
         service.faults().add(
             {.endpoint = "pair-poll", .count = 1, .delivery = local::Delivery::garbage});
       },
       ""},
      {"gone", [this](const auto&) { service.outage(local::OutageKind::refuse, 60s); }, ""},
  };
  for (const auto& [what, prepare, message] : table) {
    SCOPED_TRACE(what);
    const auto code = begin();
    prepare(code);
    poll();
    EXPECT_EQ(failure(), message);
    if (std::string(message).empty()) {
      service.endOutage();
      const auto before = service.requests().count("pair-poll");
      clock->advance(3900ms);
      spin();
      EXPECT_EQ(service.requests().count("pair-poll"), before)
          << "after a failure the pause doubles";
      poll(100ms);
      EXPECT_TRUE(isWaiting());
      service.pairings().approve(code);
      poll(2s);  // for one step only
      EXPECT_EQ(flow.state(), PairingState(PairingConnecting{"ann"}));
    }
    flow.cancel();
  }

  begin();
  flow.cancel();
  EXPECT_EQ(flow.state(), PairingState(PairingIdle{}));
  EXPECT_EQ(lines().back(), "» pairing cancelled");
  clock->advance(10s);
  EXPECT_EQ(clock->pendingCount(), 0u);

  service.stop();
  flow.start(service.url(), false, {});
  ASSERT_TRUE(spinUntil([&] { return !failure().empty(); }));
  EXPECT_THAT(failure(), AllOf(StartsWith("Could not reach http://127.0.0.1:"),
                               HasSubstr("Couldn't connect to server")));
  EXPECT_THAT(lines().back(), StartsWith("✗ pairing request failed: "));
}

}  // namespace
}  // namespace verdo::test
