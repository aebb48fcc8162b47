#include "LocalService/LocalService.h"
#include "VerdoDriver/Model/PairFlow.h"
#include "VerdoDriver/Model/PairingClient.h"
#include "VerdoDriverCore/Process/Which.h"
#include "tests/Support/AppFixture.h"
#include "tests/Support/Children.h"

#include <httplib.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

/// Presses a button of the approve page in a headless browser; gives the text of the next page.
Lines press(const std::string& url, const char* button) {
  const auto node = Which::find("node").value();
  const auto child =
      Spawn::launch(node, {node, VERDO_APPROVE_SCRIPT, VERDO_BROWSER_PROGRAM, url, button},
                    currentEnvironment(), true);
  CollectedLines text(child->takeStdout());
  EXPECT_TRUE(text.start().reader().done().waitFor(50s));
  EXPECT_EQ(child->wait(), 0) << testing::PrintToString(text.now());
  return text.now();
}

/// The app's side of pairing, whole, against the service; time passes when the test says so.
class Pairing : public AppFixture {
 protected:
  Pairing() {
    service.start();
    service.pairings().setRules({.interval = 2s, .username = "ann"});
  }
  void TearDown() override {
    EXPECT_THAT(appLog.lines(), Each(Not(HasSubstr(service.token()))));
    EXPECT_THAT(log->lines(), Each(Not(HasSubstr(service.token()))));
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
  void poll() {
    clock->advance(2s);
    EXPECT_TRUE(spinUntil([&] { return clock->pendingCount() == 1 || !isWaiting(); }));
  }
  std::string failure() const {
    const auto* failed = std::get_if<PairingFailed>(&flow.state());
    return failed ? failed->message : "";
  }
  bool isWaiting() const { return std::holds_alternative<PairingWaiting>(flow.state()); }

  local::LocalService service;
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
  EXPECT_THAT(press(opened, "Approve"), testing::Contains(HasSubstr("Ann's <computer>")));
  poll();
  EXPECT_EQ(flow.state(), PairingState(PairingConnecting{"ann"}));
  EXPECT_EQ(received, "ann:" + service.token());
  const auto token = "····" + service.token().substr(service.token().size() - 4);
  EXPECT_THAT(log->lines(),
              testing::ElementsAre(
                  "» pairing with " + service.url() + " — asking for a code",
                  "» pairing code " + code + " — approve it in the browser (" + opened + ")",
                  "» pairing approved as ann — token " + token + " received, checking it"));
  EXPECT_EQ(service.requests().list("pair-start").front().body, R"({"host": "Ann's <computer>"})");
}

TEST_F(Pairing, IsNotDeniedInTheBrowserOrOutlivesItsCode) {
  begin();
  press(opened, "Deny");
  poll();
  EXPECT_EQ(failure(), "Denied in the browser — nothing was connected.");
  service.pairings().expire(begin());
  poll();
  EXPECT_THAT(failure(), HasSubstr("expired before it was approved"));
  EXPECT_EQ(received, "");
}

}  // namespace
}  // namespace verdo::test
