#include "LocalService/LocalService.h"
#include "tests/LocalService/RawClient.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace verdo::local::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class Provider : public testing::Test {
 protected:
  Provider() : service({.providerKey = "sk-test"}) { service.start(); }

  Driver client(const std::string& key = "sk-test") const { return {service.port(), key}; }
  static void start(Driver& driver, const std::string& prompt = "hi") {
    driver.start("POST", "/llm/v1/chat/completions",
                 R"({"model":"m1","messages":[{"role":"system","content":"be brief"},)"
                 R"({"role":"user","content":)" +
                     json(prompt).dump() + "}]}");
  }
  Seen complete(const std::string& prompt = "hi", const std::string& key = "sk-test") const {
    auto driver = client(key);
    start(driver, prompt);
    return driver.finish();
  }

  LocalService service;
};

TEST_F(Provider, AnswersByDefaultAndChecksKeyAndRequest) {
  EXPECT_EQ(service.providerUrl(), service.url() + "/llm");
  const auto reply = complete("grüße \"x\"").json();
  EXPECT_EQ(reply["model"], "m1");
  EXPECT_EQ(reply["choices"], json::parse(R"([{"index":0,"finish_reason":"stop","message":
                             {"role":"assistant","content":"echo: grüße \"x\""}}])"));
  EXPECT_EQ(reply["usage"],
            (json{{"prompt_tokens", 5}, {"completion_tokens", 5}, {"total_tokens", 10}}));
  EXPECT_EQ(client().call("GET", "/llm/models").json()["data"][0]["object"], "model");

  for (const auto* key : {"sk-tesT", "sk-test2", ""}) {
    const auto refused = complete("hi", key);
    EXPECT_EQ(refused.status, 401);
    EXPECT_EQ(refused.json()["error"]["code"], "invalid_api_key");
    EXPECT_EQ(client(key).call("GET", "/llm/models").status, 401);
  }
  for (const auto* body : {"{", "[]", R"({"model":"m"})", R"({"model":"m","messages":[]})",
                           R"({"model":null,"messages":[{"role":"user","content":""}]})"}) {
    const auto refused = client().call("POST", "/llm/v1/chat/completions", body);
    EXPECT_EQ(refused.status, 400) << body;
    EXPECT_EQ(refused.json()["error"]["type"], "invalid_request_error") << body;
  }
  service.addFault({.endpoint = "chat", .reply = FaultReply{.status = 503}});
  EXPECT_EQ(complete().status, 503);
  EXPECT_EQ(client().call("GET", "/llm/models").status, 200);
}

TEST_F(Provider, RulesAreChosenInOrderAndShapeTheAnswer) {
  service.addProviderRule({.match = "weather", .content = "", .finishReason = "length"});
  service.addProviderRule({.count = 1, .status = 429, .content = "slow down"});
  service.addProviderRule({.count = 1, .body = "[1]"});
  service.addProviderRule({.content = "a\"b",
                           .model = "m2",
                           .finishReason = {},
                           .usage = {{"total_tokens", 7}},
                           .omit = {"id", "created"}});
  const auto limited = complete();
  EXPECT_EQ(limited.status, 429);
  EXPECT_EQ(limited.json()["error"]["message"], "slow down");
  EXPECT_EQ(complete().body, "[1]");
  const auto empty = complete("the weather").json()["choices"][0];
  EXPECT_EQ(empty["message"]["content"], "");
  EXPECT_EQ(empty["finish_reason"], "length");
  EXPECT_EQ(complete().json(),
            json::parse(R"({"object":"chat.completion","model":"m2","usage":{"total_tokens":7},
                            "choices":[{"index":0,"finish_reason":null,
                                        "message":{"role":"assistant","content":"a\"b"}}]})"));
  EXPECT_EQ(service.providerRules()[2].hits, 1u);

  service.clearProviderRules();
  const std::string large(2'000'000, 'x');
  service.addProviderRule({.content = large});
  EXPECT_TRUE(complete().json()["choices"][0]["message"]["content"] == large);
  service.reset();
  EXPECT_THAT(complete().body, HasSubstr("echo: hi"));

  EXPECT_THROW(service.addProviderRule({.delay = -1ms}), std::invalid_argument);
  EXPECT_THROW(service.addProviderRule({.status = 42}), std::invalid_argument);
  EXPECT_THROW(service.addProviderRule({.omit = {"chioces"}}), std::invalid_argument);
  EXPECT_THROW(LocalService({.providerKey = ""}), std::invalid_argument);
}

TEST_F(Provider, HangUpIsNoticedAtOnce) {
  service.addProviderRule({.match = "trickle", .never = true, .keepAlive = 60s});
  service.addProviderRule({.never = true});
  std::uint64_t n = 0;
  for (const auto* prompt : {"trickle", "wait"}) {
    auto leaving = client();
    start(leaving, prompt);
    ASSERT_TRUE(service.waitForRequest("chat", ++n, 5s));
    EXPECT_EQ(service.inFlight("chat"), 1u);
    const auto left = Clock::now();
    leaving.client().close();
    ASSERT_TRUE(service.waitForHangUps("chat", n, 5s));
    EXPECT_LT(Clock::now() - left, 50ms) << prompt;
  }
  EXPECT_EQ(service.inFlight("chat"), 0u);
}

TEST_F(Provider, ManyWaitTogether) {
  constexpr std::size_t kClients = 300;
  service.addProviderRule({.delay = 500ms});
  service.outage(OutageKind::hang, 60s);  // holds them until all are there
  std::vector<Driver> clients;
  clients.reserve(kClients);
  for (std::size_t i = 0; i < kClients; ++i) clients.push_back(client());
  for (auto& each : clients) start(each);
  ASSERT_TRUE(service.waitForRequest("chat", kClients, 5s));
  const auto released = Clock::now();
  service.endOutage();
  for (auto& each : clients) EXPECT_EQ(each.finish().status, 200);
  EXPECT_GE(Clock::now() - released, 500ms);
  EXPECT_LT(Clock::now() - released, 5s);  // one after the other would take 150 s
  EXPECT_EQ(service.inFlight("chat"), 0u);
  EXPECT_EQ(service.maxInFlight("chat"), kClients);
  service.clearRequests();
  EXPECT_EQ(service.maxInFlight("chat"), 0u);
}

TEST_F(Provider, BlankLinesComeBeforeTheAnswer) {
  const ProviderRule rule{.count = 1, .delay = 200ms, .keepAlive = 20ms, .body = "{}"};
  service.addProviderRule(rule);
  auto chunked = client();
  const auto begin = Clock::now();
  start(chunked);
  EXPECT_THAT(chunked.finish().head, HasSubstr("\r\nTransfer-Encoding: chunked\r\n"));
  EXPECT_LT(Clock::now() - begin, 200ms);
  // Answered only if the body before it ends where it says.
  chunked.client().send(
      "GET /llm/models HTTP/1.1\r\nAuthorization: Bearer sk-test\r\nConnection: close\r\n\r\n");
  const auto rest = chunked.finish();
  EXPECT_GE(Clock::now() - begin, 200ms);
  EXPECT_EQ(rest.end, Seen::End::closed);
  EXPECT_THAT(rest.body, StartsWith("1\r\n\n\r\n1\r\n\n\r\n1\r\n\n\r\n"));
  EXPECT_THAT(rest.body, HasSubstr("\r\n\n\r\n2\r\n{}\r\n0\r\n\r\nHTTP/1.1 200 "));

  auto unbounded = rule;
  unbounded.untilClose = true;
  service.addProviderRule(unbounded);
  auto closed = client();
  start(closed);
  EXPECT_EQ(closed.finish().status, 200);
  const auto body = closed.finish();
  EXPECT_EQ(body.end, Seen::End::closed);
  EXPECT_THAT(body.body, StartsWith("\n\n\n"));
  EXPECT_THAT(body.body, EndsWith("\n{}"));

  // A fault that cuts the reply short cuts a plain one.
  service.addProviderRule(rule);
  service.addFault({.endpoint = "chat", .delivery = Delivery::truncated, .truncateAfter = 1});
  EXPECT_EQ(complete().body, "{");
}

TEST_F(Provider, ControlInterfaceSetsRules) {
  const auto call = [&](const std::string& method, const json& body = nullptr) {
    return client().call(method, "/control/provider", body.is_null() ? "" : body.dump());
  };
  EXPECT_EQ(call("POST", {{"match", "hi"}, {"body", {{"a", 1}}}, {"count", 1}}).json()["id"], 1);
  EXPECT_EQ(
      call("POST", {{"content", "c"}, {"finish_reason", nullptr}, {"omit", {"usage"}}}).status,
      200);
  EXPECT_EQ(complete().body, R"({"a":1})");
  const auto second = complete().json();
  EXPECT_EQ(second["choices"][0]["message"]["content"], "c");
  EXPECT_EQ(second["choices"][0]["finish_reason"], nullptr);
  EXPECT_FALSE(second.contains("usage"));
  const auto state = call("GET").json();
  EXPECT_EQ(state["rules"][1]["hits"], 1);
  EXPECT_EQ(state["max_in_flight"], 1);
  EXPECT_EQ(call("DELETE").status, 200);
  EXPECT_THAT(complete().body, HasSubstr("echo"));
  EXPECT_THAT(call("POST", {{"contents", "c"}}).json()["error"], HasSubstr("unknown key"));
  EXPECT_THAT(call("POST", {{"status", 1}}).json()["error"], HasSubstr("from 200 to 599"));
}

}  // namespace
}  // namespace verdo::local::test
