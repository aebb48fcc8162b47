#include "LocalService/LocalService.h"
#include "VerdoDriver/Model/DriverFactory.h"
#include "VerdoDriver/Model/PairingClient.h"
#include "VerdoDriver/Model/SafeLink.h"
#include "VerdoDriver/Model/Semver.h"
#include "VerdoDriver/Model/UpdateChecker.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/Certificates.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/RecordingDriverLog.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace verdo::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

std::string text(const PairingError& error) { return error.errorDescription(); }
std::string text(const UpdateError& error) { return error.description; }
std::string text(const AppManifest& manifest) { return manifest.appVersion.value_or("none"); }
std::string text(const PairingPoll& poll) {
  return fmt::format("{} {} {}", int(poll.status), poll.token, poll.username);
}
std::string text(const PairingStart& start) {
  return fmt::format("{} {} {} {} {}", start.code, start.userCode, start.verifyPath,
                     start.expiresIn.count(), start.interval.count());
}

class ModelHttpTest : public testing::Test {
 protected:
  ModelHttpTest() { service.start(); }

  /// What a call tells, asynchronously and once.
  std::string ask(const std::string& what, const std::string& server) {
    std::string told;
    const auto tell = [&](auto reply) { told += reply ? text(*reply) : text(reply.error()); };
    if (what == "start") client.start(server, false, "my \"box\"", tell);
    if (what == "poll") client.poll(server, false, "secret-code", tell);
    if (what == "check") checker.check(server, false, tell);
    EXPECT_EQ(told, "") << "told inside the call";
    EXPECT_TRUE(spinUntil([&] { return !told.empty(); }));
    return told;
  }
  /// The same with this reply of the service.
  std::string ask(const std::string& what, int status, const std::string& body) {
    service.faults().clearAll();
    service.faults().add({.reply = local::FaultReply{status, body, {{"Location", "/elsewhere"}}}});
    return ask(what, service.url());
  }

  local::LocalService service;
  PairingClient client{"app/1.2.3"};
  UpdateChecker checker{"1.9.9"};
  AppLogCapture log;
};

TEST_F(ModelHttpTest, RequestsDifferFromTheProtocol) {
  ask("start", 200, R"({"code": "secret-code"})");
  ask("poll", 200, R"({"status": "approved", "token": "secret-token"})");
  ask("check", " " + service.url() + "// \n");
  const auto requests = service.requests().list();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].method + requests[0].target, "POST/api/driver/pair/start");
  EXPECT_EQ(requests[0].body, R"({"host": "my \"box\""})");
  EXPECT_EQ(requests[1].method + requests[1].target, "POST/api/driver/pair/poll");
  EXPECT_EQ(requests[1].body, R"({"code": "secret-code"})");
  const auto host = Pair("Host", service.url().substr(7));
  const auto accept = Pair("Accept", "application/json");
  const auto app = Pair("X-VERDO-Driver-Client", "app/1.2.3");
  EXPECT_THAT(requests[1].headers, ElementsAre(host, Pair("Content-Type", "application/json"),
                                               accept, app, Pair("Content-Length", "23")));
  EXPECT_EQ(requests[2].method + requests[2].target, "GET/driver/app.json");
  EXPECT_THAT(requests[2].headers, ElementsAre(host, accept));
  EXPECT_FALSE(log.has("secret"));
}

TEST_F(ModelHttpTest, ReplyIsReadWrongly) {
  const std::string start = R"({"code": "c", "user_code": "u", "verify_path": "/p", "interval": 5)";
  const std::string full = R"({"app_version": "2.0.0", "protocol": 3, "dmg_url": "u",
                               "driver_version": "v", "ego_install_url": "e", "more": []})";
  const struct {
    const char* what;
    int status;
    std::string body;
    std::string told;
  } table[] = {
      {"start", 201, start + R"(, "expires_in": -7, "more": []})", "c u /p -7 5"},
      {"start", 200, start + R"(, "expires_in": 9223372036854775807})", "c u /p 604800 5"},
      {"start", 200, start + R"(, "expires_in": -604801})", "c u /p -604800 5"},
      {"start", 200, start + R"(, "expires_in": null})", "!\"expires_in\" is missing"},
      {"poll", 200, R"({"status": "pending"})", "1  "},
      {"poll", 200, R"({"status": "denied"})", "2  "},
      {"poll", 200, R"({"status": "expired"})", "3  "},
      {"poll", 200, R"({"status": "approved", "token": "t", "username": "ann"})", "0 t ann"},
      {"poll", 200, R"({"status": "approved", "token": "t", "username": 7})", "0 t ?"},
      {"poll", 200, R"({"status": "approved", "token": ""})", "!approved without a token"},
      {"poll", 200, R"({"status": "Pending"})", "!status Pending"},
      {"poll", 200, R"({"status": 1})", "!no status"},
      {"poll", 500, R"({"detail": "out of codes"})", "HTTP 500: out of codes"},
      {"poll", 307, R"({"detail": ["not elsewhere"]})", "HTTP 307"},
      {"check", 200, full, "2.0.0"},
      {"check", 200, std::string(2u << 20, ' '), "The response is longer than 1048576 bytes"},
      {"check", 404, "{}", "HTTP 404"},
      {"check", 200, "garbage", "!it is not a JSON object"},
      {"check", 200, R"({"app_version": 2})", "!\"app_version\" is not a text"},
      {"check", 200, R"({"protocol": "3"})", "!\"protocol\" is not an integer"},
  };
  for (const auto& [what, status, body, told] : table) {
    std::string expected = told;
    if (told[0] == '!') expected.replace(0, 1, "Unexpected reply from the server: ");
    EXPECT_EQ(ask(what, status, body), expected);
  }
  EXPECT_EQ(service.requests().count(), std::size(table));
  EXPECT_TRUE(log.has("[UpdateChecker] app_version=2.0.0 protocol=3 newer=true"));
  EXPECT_EQ(checker.latest(), (AppManifest{"2.0.0", "u", 3, "v", "e"}));
  ask("check", 200, R"({"app_version": "1.9.9"})");
  EXPECT_TRUE(log.has("[UpdateChecker] app_version=1.9.9 protocol=-1 newer=false"));
  EXPECT_EQ(ask("check", 200, R"({"app_version": null})"), "none");
  EXPECT_TRUE(log.has("[UpdateChecker] app_version=none protocol=-1 newer=false"));
}

TEST_F(ModelHttpTest, UnusableServerIsAsked) {
  for (const char* what : {"start", "check"}) {
    EXPECT_THAT(ask(what, "HTTP://verdo.example"), HasSubstr("is plain http off loopback"));
    EXPECT_EQ(ask(what, "ftp://127.0.0.1"), "The server URL is not valid.");
  }
  service.stop();
  EXPECT_THAT(ask("poll", service.url()), HasSubstr("onnect"));
}

TEST_F(ModelHttpTest, PassesTheProxyBy) {
  PairingClient through("app/1", [this](const std::string& url) {
    return url == "http://verdo.invalid/api/driver/pair/start" ? service.url() : "";
  });
  std::string told;
  through.start("http://verdo.invalid", true, "box",
                [&](const auto& reply) { told = text(reply.error()); });
  EXPECT_TRUE(spinUntil([&] { return !told.empty(); }));
  // The service, in the proxy's place, refuses to be another host.
  EXPECT_EQ(told, "HTTP 421");
}

TEST_F(ModelHttpTest, RequestOutlivesTheClient) {
  service.faults().add({.delay = std::chrono::seconds(30)});
  bool told = false;
  auto leaving = std::make_unique<PairingClient>("app/1");
  leaving->poll(service.url(), false, "c", [&](const auto&) { told = true; });
  ASSERT_TRUE(service.requests().waitFor("", 1, std::chrono::seconds(10)));
  leaving.reset();
  EXPECT_TRUE(service.requests().waitForHangUps("", 1, std::chrono::seconds(10)));
  spin();
  EXPECT_FALSE(told);
}

TEST(Semver, IsReadOrOrderedWrongly) {
  for (const char* text :
       {"1.2", "1.2.3.4", "1..3", "v1.2.3", "1.2.3+5", "1.2.99999999999999999999"}) {
    EXPECT_FALSE(Semver::parse(text)) << text;
  }
  EXPECT_EQ(Semver::parse(" 1.2.3-rc.1-x\n"), (Semver{1, 2, 3, "rc.1-x"}));
  EXPECT_EQ(Semver::parse("1.2.3-"), Semver::parse("1.2.3"));
  const char* const rising[] = {"1.2.3-beta", "1.2.3-rc.9", "1.2.3", "1.2.10-a", "1.10.0", "2.0.0"};
  for (std::size_t i = 1; i < std::size(rising); ++i) {
    EXPECT_TRUE(Semver::parse(rising[i - 1]) < Semver::parse(rising[i])) << rising[i];
  }
}

TEST(SafeLink, UnsafeLinkIsOpened) {
  for (const char* link : {"HTTPS://Elsewhere.example:8443/a.dmg", "HTTP://H:80/a"}) {
    EXPECT_TRUE(SafeLink::allowed(link, "http://h:80/base")) << link;
  }
  for (const char* link : {"http://other/a", "http://h@other/a", "https://h/a\\b", "https://h/%2g",
                           "javascript://h/%0aalert(1)", "https:///a", "//h/a"}) {
    EXPECT_FALSE(SafeLink::allowed(link, "http://h")) << link;
  }
  EXPECT_FALSE(SafeLink::allowed("http://h/a", "https://h"));
}

TEST(ExtraAuthority, IsNotTrustedByEveryRequestToTheService) {
  const Certificates ours;
  local::LocalService service({.certificate = ours.certificate(), .privateKey = ours.privateKey()});
  service.start();
  const auto outcomes = [&](const std::string& extra) {
    PairingClient client("app/1.2.3", {}, extra);
    UpdateChecker checker("1.9.9", {}, extra);
    std::vector<std::string> told;
    const auto tell = [&](auto reply) { told.push_back(reply ? "answered" : text(reply.error())); };
    client.start(service.url(), false, "box", tell);
    EXPECT_TRUE(spinUntil([&] { return told.size() == 1; }));
    checker.check(service.url(), false, tell);
    EXPECT_TRUE(spinUntil([&] { return told.size() == 2; }));
    DriverConfig config(service.url(), service.token());
    config.dryRun = true;
    config.execCommand = "true";
    const auto reason = RealDriverFactory({}, {}, extra)
                            .makeDriver(config, std::make_shared<RecordingDriverLog>(), {})
                            ->run();
    told.push_back(reason == ExitReason::clean() ? "answered" : reason.message());
    return told;
  };
  EXPECT_THAT(outcomes(ours.authority()), ElementsAre("answered", "answered", "answered"));
  EXPECT_THAT(outcomes(""), testing::Each(HasSubstr("certificate")));
  EXPECT_THAT(outcomes("/no/such.pem"), testing::Each(HasSubstr("/no/such.pem")));
}

}  // namespace
}  // namespace verdo::test
