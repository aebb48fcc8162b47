#include "LocalService/LocalService.h"

#include <memory>
#include <string>

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>

namespace verdo::test {
namespace {

TEST(LocalServiceRequest, WaitsForABodyThatIsNotAnnounced) {
  local::LocalService service;
  service.start();
  const auto url = service.url() + "/control/reset";
  const std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "POST");  // as curl -X POST: no length
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 5L);
  const auto ignore = [](char*, std::size_t size, std::size_t count, void*) {
    return size * count;
  };
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, +ignore);
  EXPECT_EQ(curl_easy_perform(curl.get()), CURLE_OK);
  long status = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  EXPECT_EQ(status, 200);
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

}  // namespace
}  // namespace verdo::test
