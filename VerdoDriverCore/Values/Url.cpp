#include "VerdoDriverCore/Values/Url.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <new>

#include <curl/curl.h>

namespace verdo {
namespace {

struct CurlUrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

/// What is wrong with memory is not wrong with the URL.
bool isFine(CURLUcode code) {
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  return code == CURLUE_OK;
}

std::optional<std::string> part(CURLU* url, CURLUPart which) {
  char* text = nullptr;
  if (!isFine(curl_url_get(url, which, &text, 0)) || !text) return std::nullopt;
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, &curl_free);
  return std::string(text);
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isSendable(char c) { return static_cast<unsigned char>(c) > 0x20 && c != 0x7F; }

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
  if (!text.starts_with("http://") && !text.starts_with("https://")) return std::nullopt;
  if (!std::all_of(text.begin(), text.end(), isSendable)) return std::nullopt;
  // The library would take the first piece of the path for the host.
  if (text.find(":///") == text.find("://")) return std::nullopt;
  const std::unique_ptr<CURLU, CurlUrlFree> parsed(curl_url());
  if (!parsed) throw std::bad_alloc();
  if (!isFine(curl_url_set(parsed.get(), CURLUPART_URL, std::string(text).c_str(), 0))) {
    return std::nullopt;
  }
  const auto host = part(parsed.get(), CURLUPART_HOST);
  if (!host || host->empty()) return std::nullopt;
  Url url;
  url.host_ = *host;
  url.https_ = text.starts_with("https:");
  url.userInfo_ = part(parsed.get(), CURLUPART_USER) || part(parsed.get(), CURLUPART_PASSWORD);
  url.queryOrFragment_ = text.find_first_of("?#") != std::string_view::npos;
  if (const auto port = part(parsed.get(), CURLUPART_PORT)) {
    std::uint16_t number = 0;
    std::from_chars(port->data(), port->data() + port->size(), number);
    url.port_ = number;
  }
  return url;
}

bool sameOrigin(const Url& a, const Url& b) {
  const auto equal = [](char x, char y) { return lower(x) == lower(y); };
  return a.isHttps() == b.isHttps() && a.port() == b.port() && !a.hasUserInfo() &&
         !b.hasUserInfo() &&
         std::equal(a.host().begin(), a.host().end(), b.host().begin(), b.host().end(), equal);
}

bool mayHoldUserInfo(std::string_view text) {
  const auto url = Url::parse(text);
  return url ? url->hasUserInfo() : text.find('@') != std::string_view::npos;
}

std::string withoutUserInfo(const std::string& text) {
  return mayHoldUserInfo(lowerScheme(text)) ? "(a URL with a user name or password)" : text;
}

std::string lowerScheme(std::string url) {
  const auto end = url.find("://");
  if (end == std::string::npos) return url;
  std::transform(url.begin(), url.begin() + static_cast<std::ptrdiff_t>(end), url.begin(), lower);
  return url;
}

std::string withoutTrailingSlashes(std::string url) {
  while (url.ends_with('/')) url.pop_back();
  return url;
}

}  // namespace verdo
