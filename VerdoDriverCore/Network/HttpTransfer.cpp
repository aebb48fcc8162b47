#include "VerdoDriverCore/Network/HttpTransfer.h"

#include "VerdoDriverCore/Values/Url.h"

#include <algorithm>
#include <new>

#include <fmt/format.h>

namespace verdo {
namespace {

/// Large bodies are handed to the kernel in pieces of this size: fewer calls than libcurl's 64 KiB,
/// while the piece still fits the processor's second-level cache.
constexpr long kUploadPiece = 256 * 1024;
constexpr std::size_t kLargeBody = 1 << 20;
constexpr long kMaxRedirects = 20;
/// libcurl copies a query byte by byte, more than once; the target that it is given, in one piece.
constexpr std::size_t kLongQuery = 256;

void addHeader(std::unique_ptr<curl_slist, CurlListFree>& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (!longer) throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(longer);
}

/// True for a URL of this very computer, which no proxy could reach, nor should hear of.
bool isLoopback(const std::string& url) {
  const auto parsed = Url::parse(url);
  return parsed && parsed->isLoopback();
}

TransportError::Kind kindOf(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return TransportError::Kind::timedOut;
    case CURLE_HTTP2_STREAM:
      return TransportError::Kind::streamReset;
    default:
      return TransportError::Kind::other;
  }
}

}  // namespace

HttpTransfer::HttpTransfer(HttpRequest req, HttpSession::Completion done,
                           const HttpSession::Options& options)
    : request(std::move(req)),
      completion(std::move(done)),
      lastActivity(Clock::now()),
      deadline(lastActivity + options.resourceLimit),
      handle(curl_easy_init()) {
  if (!handle) throw std::bad_alloc();
  if (request.deadline) deadline = std::min(deadline, *request.deadline);
  CURL* easy = handle.get();
  const auto set = [easy](CURLoption option, auto value) { curl_easy_setopt(easy, option, value); };
  set(CURLOPT_PRIVATE, this);
  setUrl();
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  // A download that began encrypted does not go on in clear.
  set(CURLOPT_REDIR_PROTOCOLS_STR, request.url.starts_with("https:") ? "https" : "http,https");
  if (isLoopback(request.url)) set(CURLOPT_PROXY, "");
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // cancelling must not wait for a name resolution
  set(CURLOPT_ERRORBUFFER, errorText);
  set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_2TLS});
  // Whether a connection can be shared, its TLS handshake tells at once. Without TLS only the first
  // reply would tell, and a long poll's comes late.
  if (request.url.starts_with("https:")) set(CURLOPT_PIPEWAIT, 1L);
  set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  if (!options.caCertificates.empty()) {
    curl_blob blob{const_cast<char*>(options.caCertificates.data()), options.caCertificates.size(),
                   CURL_BLOB_NOCOPY};
    set(CURLOPT_CAINFO, static_cast<char*>(nullptr));
    set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
    set(CURLOPT_CAINFO_BLOB, &blob);
  }
  if (request.followRedirects) {
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
  }
  set(CURLOPT_CUSTOMREQUEST, request.method.c_str());
  for (const auto& [name, value] : request.headers) addHeader(headers, name + ": " + value);
  if (request.body) {
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
    set(CURLOPT_POSTFIELDS, request.body->view().data());
    // libcurl would otherwise name its own type, and ask before it sends a large body.
    const bool hasType =
        std::any_of(request.headers.begin(), request.headers.end(),
                    [](const auto& header) { return header.first == "Content-Type"; });
    if (!hasType) addHeader(headers, "Content-Type:");
    addHeader(headers, "Expect:");
    if (request.body->size() > kLargeBody) set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadPiece);
  }
  set(CURLOPT_HTTPHEADER, headers.get());
  set(CURLOPT_WRITEFUNCTION, &HttpTransfer::onBody);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, &HttpTransfer::onProgress);
  set(CURLOPT_XFERINFODATA, this);
}

/// Gives libcurl the address, a long query apart. A proxy for plain http needs the whole address as
/// the target, and a redirect another one.
void HttpTransfer::setUrl() {
  const std::string& url = request.url;
  const auto path = url.find('/', url.find("://") + 3);
  const auto query = std::min(url.find('?'), url.size());
  const bool direct = url.starts_with("https:") || isLoopback(url);
  if (url.size() - query < kLongQuery || path > query || request.followRedirects || !direct) {
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    return;
  }
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.substr(0, path).c_str());
  curl_easy_setopt(handle.get(), CURLOPT_REQUEST_TARGET, url.c_str() + path);
}

HttpTransfer::Clock::time_point HttpTransfer::expiry() const {
  return std::min(deadline, lastActivity + request.timeout);
}

int HttpTransfer::status() const {
  long code = 0;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &code);
  return static_cast<int>(code);
}

std::size_t HttpTransfer::onBody(char* data, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  const std::string_view bytes(data, size * count);
  transfer.lastActivity = Clock::now();
  if (transfer.request.sink) {
    return transfer.request.sink->onBytes(transfer.status(), bytes) ? bytes.size() : 0;
  }
  std::string& body = transfer.response_.body;
  if (bytes.size() > transfer.request.maxBody - body.size()) {
    transfer.bodyTooLong_ = true;
    return 0;
  }
  body.append(bytes);
  return bytes.size();
}

int HttpTransfer::onProgress(void* self, curl_off_t, curl_off_t downNow, curl_off_t,
                             curl_off_t upNow) {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  if (downNow + upNow != transfer.moved_) {
    transfer.moved_ = downNow + upNow;
    transfer.lastActivity = Clock::now();
  }
  return 0;
}

void HttpTransfer::finish(CURLcode code) {
  if (code == CURLE_OK) {
    response_.status = status();
    completion({std::move(response_), std::nullopt});
  } else if (bodyTooLong_) {
    fail({TransportError::Kind::other,
          fmt::format("The response is longer than {} bytes", request.maxBody)});
  } else {
    fail({kindOf(code), errorText[0] != 0 ? errorText : curl_easy_strerror(code)});
  }
}

void HttpTransfer::fail(TransportError error) { completion({std::nullopt, std::move(error)}); }

}  // namespace verdo
