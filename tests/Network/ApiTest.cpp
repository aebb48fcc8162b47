#include "tests/Support/ApiFixture.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using testing::ElementsAre;
using testing::Pair;
using testing::StartsWith;

class ApiRequests : public ApiFixture {};

TEST_F(ApiRequests, HeadersOrBodiesDifferFromTheProtocol) {
  auto given = options();
  given.base += "//";
  given.llmInfo = JV::Object{{"present", false}, {"last4", JV()}, {"base_url", "https://p/ü"}};
  given.clientHeader = "app 1.0";
  make(std::move(given));
  addJob("");
  api->hello();
  api->poll(25.9, {"ü~/\xff", "b&c=#?"});
  api->lines(1, batch({"a\"b", "ä\x01"}));
  api->complete(1, -15, std::nullopt);

  const auto requests = service.requests().list();
  ASSERT_EQ(requests.size(), 4u);
  const auto host = Pair("Host", "127.0.0.1:" + std::to_string(service.port()));
  const auto accept = Pair("Accept", "*/*");
  const auto token = Pair("Authorization", "Bearer " + service.token());
  const auto protocol = Pair("X-VERDO-Driver-Protocol", "2");
  const auto version = Pair("X-VERDO-Driver-Version", "2026.09.04");
  const auto client = Pair("X-VERDO-Driver-Client", "app 1.0");
  const auto json = Pair("Content-Type", "application/json");

  EXPECT_EQ(requests[0].target, "/api/driver/hello");
  EXPECT_THAT(
      requests[0].headers,
      ElementsAre(host, accept, token, protocol, version, client,
                  Pair("X-VERDO-Driver-LLM",
                       R"({"present": false, "last4": null, "base_url": "https://p/\u00fc"})")));
  EXPECT_EQ(requests[1].method + " " + requests[1].target,
            "GET /api/driver/poll?wait=25&busy=b%26c%3D%23%3F%2C%C3%BC~/%FF");
  EXPECT_THAT(requests[1].headers, ElementsAre(host, accept, token, protocol, version, client));
  EXPECT_EQ(requests[2].method + " " + requests[2].target, "POST /api/driver/jobs/1/lines");
  EXPECT_EQ(requests[2].body, "{\"lines\": [\"a\\\"b\", \"\\u00e4\\u0001\"]}");
  EXPECT_THAT(requests[2].headers,
              ElementsAre(host, accept, token, protocol, version, client, json,
                          Pair("Content-Length", std::to_string(requests[2].body.size()))));
  EXPECT_EQ(requests[3].method + " " + requests[3].target, "POST /api/driver/jobs/1/complete");
  EXPECT_EQ(requests[3].body, R"({"exit_code": -15, "error": null})");
  // All of it over one connection.
  EXPECT_EQ(service.acceptedConnections(), 1u);
}

TEST_F(ApiRequests, ReplyIsReadWrongly) {
  const struct {
    int status;
    std::string body;
    const char* failure;  ///< how the message goes on; null: none
    bool object = false;
  } cases[] = {
      {200, "{}", nullptr, true},
      {200, R"({"big":123456789012345678901234567890})", nullptr, true},
      {200, R"({"big":1e400})", "-> JSONDecodeError: number out of range"},
      {200, "", nullptr},
      {204, "", nullptr},
      {304, "", nullptr},
      {302, "moved", "-> JSONDecodeError: "},
      {200, "[]", "-> JSONDecodeError: body is not an object"},
      {200, "{\"a\":\"\xff\"}", "-> JSONDecodeError: "},
      {200, "{\"job\":{},\"a\":\"\xff\"}", nullptr, true},
      {200, R"({"job":{"id":1e400}})", nullptr, true},
      {400, "bad", "-> 400: bad"},
      {404, "", "-> 404: "},
      {500, std::string(1000, 'e'), "-> 500: "},
      {503, "\xff\xc3", "-> 503: \xEF\xBF\xBD\xEF\xBF\xBD"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.body.substr(0, 40));
    service.faults().clearAll();
    service.faults().add(
        {.reply = FaultReply{.status = row.status,
                             .body = row.body,
                             .headers = {{"Location", service.url() + "/elsewhere"}}}});
    std::optional<JsonReading> reply;
    const auto message = failureOf([&] { reply = api->poll(0, {}); });
    EXPECT_EQ(reply.has_value(), row.object);
    if (row.failure) {
      EXPECT_THAT(message, StartsWith(std::string("GET /api/driver/poll?wait=0 ") + row.failure));
    } else {
      EXPECT_EQ(message, "");
    }
    EXPECT_LE(message.size(), 400u);
  }
  // Redirects of protocol calls are not followed.
  EXPECT_EQ(service.requests().count(), std::size(cases));
}

TEST_F(ApiRequests, SecretThatTheServiceQuotesReachesAMessage) {
  auto given = options();
  given.scrub.add("sk-llm/key");
  make(std::move(given));
  for (const std::string& secret : {service.token(), std::string("sk-llm/key")}) {
    const std::pair<int, std::string> replies[] = {
        {500, secret + secret},
        {500, std::string(298, 'x') + secret},
        {500, std::string(299, 'x') + secret},
        {200, '"' + secret},
        {200, '"' + secret + "\xff"},
        {200, '"' + std::string(150, 'x') + secret},
        {200, "{\"a\": \"" + secret + "\n"},
    };
    for (const auto& [status, body] : replies) {
      service.faults().clearAll();
      service.faults().add({.reply = FaultReply{.status = status, .body = body}});
      const auto message = failureOf([&] { api->hello(); });
      EXPECT_THAT(message, StartsWith(status == 500 ? "GET /api/driver/hello -> 500: "
                                                    : "GET /api/driver/hello -> JSONDecodeError"));
      EXPECT_THAT(message, Not(testing::HasSubstr(secret.substr(0, 3)))) << body;
    }
  }
}

TEST_F(ApiRequests, FailureThatMayBeForItsWaitLooksLikeAnyOther) {
  using Cause = ServerError::Cause;
  const std::pair<local::Fault, Cause> cases[] = {
      {{.delivery = local::Delivery::close}, Cause::closed},
      {{.reply = FaultReply{.body = "{}"},
        .delivery = local::Delivery::truncated,
        .truncateAfter = 1},
       Cause::closed},
      {{.delivery = local::Delivery::reset}, Cause::other},
      {{.delivery = local::Delivery::garbage}, Cause::other},
      {{.reply = local::FaultReply{.status = 504}}, Cause::waitTooLong},
      {{.reply = local::FaultReply{.status = 502}}, Cause::other},
  };
  for (const auto& [fault, cause] : cases) {
    const auto id = service.faults().add(fault);
    try {
      api->poll(1, {});
      ADD_FAILURE() << "the poll went well";
    } catch (const ServerError& error) {
      EXPECT_EQ(error.cause(), cause) << error.what();
    }
    service.faults().clear(id);
  }
}

TEST_F(ApiRequests, ProxyHearsOfRequestsToThisComputer) {
  const ScopedEnv proxy("http_proxy", "http://127.0.0.1:1");
  const ScopedEnv every("ALL_PROXY", "http://127.0.0.1:1");
  make();
  EXPECT_EQ(failureOf([&] { api->hello(); }), "");
}

}  // namespace
}  // namespace verdo::test
