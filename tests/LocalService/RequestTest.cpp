#include "LocalService/LocalService.h"

#include <map>
#include <memory>
#include <string>

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <httplib.h>

namespace verdo::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// The status of a POST without a body, as curl -X POST sends it, to the control interface; 0: no
/// reply came. `header` is a further one.
long postNothing(const local::LocalService& service, const std::string& header = "X: y") {
  const auto url = service.url() + "/control/reset";
  const auto token = "Authorization: Bearer " + service.controlToken();
  const std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  const std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(
      curl_slist_append(curl_slist_append(nullptr, token.c_str()), header.c_str()),
      curl_slist_free_all);
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "POST");
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 5L);
  const auto ignore = [](char*, std::size_t size, std::size_t count, void*) {
    return size * count;
  };
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, +ignore);
  long status = 0;
  if (curl_easy_perform(curl.get()) == CURLE_OK) {
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  }
  return status;
}

TEST(LocalServiceRequest, WaitsForABodyThatIsNotAnnouncedOrCannotBe) {
  local::LocalService service;
  service.start();
  EXPECT_EQ(postNothing(service), 200);
  for (const auto& [length, status] : std::map<std::string, int>{
           {"-1", 400},
           {"1e3", 400},
           {"268435457", 413},
           {"18446744073709551615", 413},
           {"99999999999999999999", 413},
       }) {
    EXPECT_EQ(postNothing(service, "Content-Length: " + length), status) << length;
  }
}

TEST(LocalServiceControl, ServesThoseWhoDidNotStartIt) {
  local::LocalService service;
  service.start();
  httplib::Client client(service.url());
  for (const auto& [given, status] : std::map<std::string, int>{
           {"Bearer " + service.controlToken(), 200},
           {"Bearer " + service.token(), 401},
           {service.controlToken(), 401},
           {"Bearer ", 401},
           {"", 401},
       }) {
    const auto reply = client.Post("/control/jobs", {{"Authorization", given}}, "{}", "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, status) << given << " " << reply->body;
  }
  EXPECT_EQ(service.jobs().list().size(), 1u);
}

TEST(LocalServiceRequest, ServesAForeignWebPage) {
  local::LocalService service;
  service.start();
  const auto own = "127.0.0.1:" + std::to_string(service.port());
  const struct {
    std::string host;
    std::string origin;  ///< "": none
    int status;
  } table[] = {
      {own, "", 200},
      {"127.0.0.1", "", 200},
      {"LocalHost:1", "", 200},
      {"10.0.0.1:8080", "", 200},
      {"[::1]:8080", "", 200},
      {own, "http://" + own, 200},
      {"evil.example", "", 421},
      {"evil.example:" + std::to_string(service.port()), "", 421},
      {"127.0.0.1.evil.example", "", 421},
      {"localhost.evil.example", "", 421},
      {"127.0.0.1:80@evil.example", "", 421},
      {"[::1].evil.example", "", 421},
      {"", "", 421},
      {own, "http://evil.example", 403},
      {own, "http://localhost:3000", 403},
      {own, "null", 403},
  };
  httplib::Client client(service.url());
  for (const auto& [host, origin, status] : table) {
    SCOPED_TRACE(testing::Message() << host << " " << origin);
    httplib::Headers headers{{"Host", host}, {"Authorization", "Bearer " + service.token()}};
    headers.emplace("X-VERDO-Driver-Protocol", "2");
    if (!origin.empty()) headers.emplace("Origin", origin);
    const auto reply = client.Get("/api/driver/hello", headers);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, status) << reply->body;
  }
}

TEST(LocalServiceControl, TakesAValueThatItCannotKeep) {
  local::LocalService service;
  service.start();
  httplib::Client client(service.url());
  const auto post = [&](const std::string& path, const std::string& body) {
    const auto reply = client.Post(
        "/control/" + path, {{"Authorization", "Bearer " + service.controlToken()}}, body, "");
    return reply ? std::to_string(reply->status) + " " + reply->body : "";
  };
  const struct {
    const char* path;
    const char* body;
    const char* complaint;
  } table[] = {
      {"faults", R"({"endpoint": "line"})", "known are any hello"},
      {"faults", R"({"status": 600})", "from 200 to 599"},
      {"faults", R"({"status": 4294967496})", "at most 2147483647"},
      {"faults", R"({"job_id": 9223372036854775808})", "at most 9223372036854775807"},
      {"faults", R"({"delay_ms": 86400001})", "from 0 to 86400000"},
      {"files", R"({"name": "a", "status": 4294967496})", "at most 2147483647"},
      {"files", R"({"name": "a", "content_base64": "===="})", "base64"},
      {"files", R"({"name": "a", "content_base64": "A==="})", "base64"},
      {"files", R"({"name": "a", "content_base64": "QQ=A"})", "base64"},
      {"files", R"({"name": "a", "content_base64": "QQ"})", "base64"},
      {"files", R"({"name": "a", "content_base64": " QQ="})", "base64"},
  };
  for (const auto& [path, body, complaint] : table) {
    EXPECT_THAT(post(path, body), AllOf(StartsWith("400"), HasSubstr(complaint))) << body;
  }
  EXPECT_THAT(post("files", R"({"name": "a", "content_base64": "QUI="})"), StartsWith("200"));
  EXPECT_EQ(client.Get("/files/a")->body, "AB");
}

}  // namespace
}  // namespace verdo::test
