#include "LocalService/LocalService.h"

#include <functional>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <httplib.h>

namespace verdo::test {
namespace {

using local::PairingState;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class ApprovePage : public testing::Test {
 protected:
  ApprovePage() {
    service.start();
    client = std::make_unique<httplib::Client>("127.0.0.1", service.port());
    client->set_read_timeout(10);
  }

  nlohmann::json post(const std::string& path, const nlohmann::json& body) {
    return nlohmann::json::parse(client->Post(path, body.dump(), "application/json")->body);
  }
  local::PairingSnapshot begin(const std::string& host = "box") {
    post("/api/driver/pair/start", {{"host", host}});
    return service.pairings().back();
  }
  std::string poll(const local::PairingSnapshot& pairing) {
    return post("/api/driver/pair/poll", {{"code", pairing.code}})["status"];
  }
  std::string page(const local::PairingSnapshot& pairing) {
    return client->Get(pairing.verifyPath)->body;
  }
  static std::string nonceIn(const std::string& page) {
    const std::string before = "name=\"nonce\" value=\"";
    const auto begin = page.find(before) + before.size();
    return page.substr(begin, page.find('"', begin) - begin);
  }
  httplib::Result press(const local::PairingSnapshot& pairing, const std::string& nonce,
                        const std::string& decision) {
    return client->Post(pairing.verifyPath, "nonce=" + nonce + "&decision=" + decision,
                        "application/x-www-form-urlencoded");
  }

  local::LocalService service;
  std::unique_ptr<httplib::Client> client;
};

TEST_F(ApprovePage, LetsAHostNameBecomeMarkup) {
  const auto pairing = begin(R"(<script>x</script>"'&amp;)");
  EXPECT_THAT(page(pairing),
              AllOf(HasSubstr("<bdi>&lt;script&gt;x&lt;/script&gt;&quot;&#39;&amp;amp;</bdi>"),
                    Not(HasSubstr("<script"))));
}

TEST_F(ApprovePage, TakesADecisionThatIsNotThePersonsOrNotInTime) {
  using Prepare = std::function<void(const local::PairingSnapshot&)>;
  const Prepare nothing = [](const auto&) {};
  const struct {
    const char* name;
    Prepare before;
    bool ownNonce;
    const char* decision;
    int status;
    const char* heading;
    PairingState state;
    const char* polled;
  } table[] = {
      {"plain", nothing, true, "approve", 200, "Approved", PairingState::approved, "approved"},
      {"no nonce", nothing, false, "approve", 403, "Nothing was decided", PairingState::pending,
       "pending"},
      {"no decision", nothing, true, "", 400, "Nothing was decided", PairingState::pending,
       "pending"},
      {"decided", [&](const auto& p) { service.decidePairing(p.userCode, false); }, true, "approve",
       409, "Already denied", PairingState::denied, "denied"},
      {"late", [&](const auto& p) { service.expirePairing(p.userCode); }, true, "approve", 410,
       "Expired", PairingState::expired, "expired"},
      {"unknown", [&](const auto&) { service.reset(); }, true, "approve", 404, "No such request",
       PairingState::pending, ""},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    const auto pairing = begin();
    const auto nonce = nonceIn(page(pairing));
    row.before(pairing);
    const auto reply = press(pairing, row.ownNonce ? nonce : "", row.decision);
    EXPECT_EQ(reply->status, row.status);
    EXPECT_THAT(reply->body, HasSubstr(std::string("<h1>") + row.heading + "</h1>"));
    EXPECT_THAT(reply->get_header_value("Content-Security-Policy"),
                AllOf(HasSubstr("default-src 'none'"), HasSubstr("frame-ancestors 'none'")));
    if (service.pairings().empty()) continue;
    EXPECT_EQ(service.pairings().back().state, row.state);
    EXPECT_EQ(poll(pairing), row.polled);
  }
}

TEST_F(ApprovePage, HandsTheTokenOutAgainOrToALateDecision) {
  const auto approved = begin();
  ASSERT_TRUE(service.decidePairing(approved.userCode, true));
  EXPECT_EQ(poll(approved), "approved");
  EXPECT_EQ(poll(approved), "expired");
  service.setPairingRules({.expiresIn = std::chrono::seconds(0)});
  const auto late = begin();
  EXPECT_FALSE(service.decidePairing(late.userCode, true));
  EXPECT_EQ(poll(late), "expired");
}

}  // namespace
}  // namespace verdo::test
