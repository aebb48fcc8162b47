// The least that holds a long poll with libcurl: what the driver's idle memory is compared with.
// Usage: verdo-bench-client URL TOKEN
#include <memory>
#include <string>

#include <curl/curl.h>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                   &curl_easy_cleanup);
  const std::string authorization = std::string("Authorization: Bearer ") + argv[2];
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
      curl_slist_append(curl_slist_append(nullptr, authorization.c_str()),
                        "X-VERDO-Driver-Protocol: 2"),
      &curl_slist_free_all);
  curl_easy_setopt(handle.get(), CURLOPT_URL, argv[1]);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
  return curl_easy_perform(handle.get()) == CURLE_OK ? 0 : 1;
}
