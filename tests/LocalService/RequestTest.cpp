#include "LocalService/LocalService.h"

#include <memory>
#include <string>

#include <curl/curl.h>
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace verdo::test
