#include "VerdoDriverCore/Network/HttpTransfer.h"

#include "VerdoDriverCore/Network/SocketOptions.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <openssl/x509_vfy.h>

namespace verdo {
namespace {

/// Large bodies are handed to the kernel in pieces of this size: fewer calls than libcurl's 64 KiB,
/// while the piece still fits the processor's second-level cache.
constexpr long kUploadPiece = 256 * 1024;
constexpr std::size_t kLargeBody = 1 << 20;
/// A body up to this one is made at once: libcurl reads a source through a buffer of this size.
constexpr std::size_t kSmallBody = 64 * 1024;
/// What is read at once of a body that a sink takes, rather than libcurl's 16 KiB.
constexpr long kDownloadPiece = 128 * 1024;
constexpr long kMaxRedirects = 20;
constexpr std::size_t kMaxPingBody = 64 * 1024;
/// libcurl copies a query byte by byte, more than once; the target that it is given, in one piece.
constexpr std::size_t kLongQuery = 256;

/// True for a URL of this very computer, which no proxy could reach, nor should hear of.
bool isLoopback(const std::string& url) {
  const auto parsed = Url::parse(url);
  return parsed && parsed->isLoopback();
}

std::shared_ptr<const ByteBuffer> readWhole(const HttpBodySource& source) {
  const auto body = std::make_shared<ByteBuffer>();
  char* end = body->room(source.size());
  const char* const limit = end + source.size();
  const auto read = source.open();
  while (end != limit) end += read(end, static_cast<std::size_t>(limit - end));
  body->commit(end);
  return body;
}

/// Host and port of a proxy, which may be written with a scheme, a user and a password.
std::string withoutPassword(std::string_view proxy) {
  if (const auto scheme = proxy.find("://"); scheme != std::string_view::npos) {
    proxy.remove_prefix(scheme + 3);
  }
  if (const auto user = proxy.rfind('@'); user != std::string_view::npos) {
    proxy.remove_prefix(user + 1);
  }
  return std::string(proxy.substr(0, proxy.find('/')));
}

/// The proxy of the environment that libcurl says it takes, in a line of its trace: which one it is
/// for an address, exceptions counted, it tells nowhere else.
std::string proxyNamedIn(std::string_view line) {
  constexpr std::string_view kBegin = "Uses proxy env variable ";
  constexpr std::string_view kEquals = " == '";
  const auto equals = line.find(kEquals);
  if (!line.starts_with(kBegin) || equals == std::string_view::npos) return "";
  const auto variable = line.substr(kBegin.size(), equals - kBegin.size());
  if (variable == "no_proxy" || variable == "NO_PROXY") return "";
  const auto value = equals + kEquals.size();
  return withoutPassword(line.substr(value, line.rfind('\'') - value));
}

HttpTrace::Certificate certificateOf(long verdict) {
  switch (verdict) {
    // libcurl itself compares the names, once OpenSSL has found nothing amiss. It reports OpenSSL's
    // verdict only after that: until then it is unspecified.
    case X509_V_OK:
    case X509_V_ERR_UNSPECIFIED:
      return HttpTrace::Certificate::otherName;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return HttpTrace::Certificate::expired;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return HttpTrace::Certificate::notYetValid;
    default:
      return HttpTrace::Certificate::untrusted;
  }
}

TransportError::Kind kindOf(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return TransportError::Kind::timedOut;
    case CURLE_HTTP2_STREAM:
      return TransportError::Kind::streamReset;
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      return TransportError::Kind::closed;
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
      deadline(request.deadline.value_or(lastActivity + options.resourceLimit)),
      handle(curl_easy_init()) {
  if (!handle) throw std::bad_alloc();
  set(CURLOPT_PRIVATE, this);
  setUrl();
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  // A download that began encrypted does not go on in clear.
  set(CURLOPT_REDIR_PROTOCOLS_STR, request.url.starts_with("https:") ? "https" : "http,https");
  if (isLoopback(request.url)) {
    set(CURLOPT_PROXY, "");
  } else if (!options.proxy.empty()) {
    set(CURLOPT_PROXY, options.proxy.c_str());
  }
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // cancelling must not wait for a name resolution
  set(CURLOPT_ERRORBUFFER, errorText);
  // A transfer that its sink may pause has a connection of its own: it would hold up every other
  // one on an HTTP/2 connection.
  set(CURLOPT_HTTP_VERSION,
      request.sink ? long{CURL_HTTP_VERSION_1_1} : long{CURL_HTTP_VERSION_2TLS});
  set(CURLOPT_SOCKOPTFUNCTION, &HttpTransfer::onSocketOpened);
  set(CURLOPT_PREREQFUNCTION, &HttpTransfer::onSending);
  set(CURLOPT_PREREQDATA, this);
  // Whether a connection can be shared, its TLS handshake tells at once. Without TLS only the first
  // reply would tell, and a long poll's comes late.
  if (request.url.starts_with("https:") && !request.sink) set(CURLOPT_PIPEWAIT, 1L);
  if (request.trace) {
    *request.trace = {};
    set(CURLOPT_VERBOSE, 1L);
    set(CURLOPT_DEBUGFUNCTION, &HttpTransfer::onTrace);
    set(CURLOPT_DEBUGDATA, this);
    if (!isLoopback(request.url)) request.trace->proxy = withoutPassword(options.proxy);
  }
  if (request.sink) set(CURLOPT_BUFFERSIZE, kDownloadPiece);
  set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  if (!options.caCertificates.empty()) setTrust(options.caCertificates);
  if (request.followRedirects) {
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
  }
  set(CURLOPT_CUSTOMREQUEST, request.method.c_str());
  setHeadersAndBody();
  set(CURLOPT_WRITEFUNCTION, &HttpTransfer::onBody);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, &HttpTransfer::onProgress);
  set(CURLOPT_XFERINFODATA, this);
}

std::unique_ptr<HttpTransfer> HttpTransfer::ping(const std::string& url,
                                                 const HttpSession::Options& options) {
  HttpRequest question;
  question.method = "OPTIONS";
  question.url = url;
  question.timeout = options.pingTimeout;
  question.maxBody = kMaxPingBody;
  auto transfer =
      std::make_unique<HttpTransfer>(std::move(question), [](const HttpResult&) {}, options);
  transfer->set(CURLOPT_REQUEST_TARGET, "*");
  return transfer;
}

HttpTransfer* HttpTransfer::of(CURL* handle) {
  HttpTransfer* transfer = nullptr;
  curl_easy_getinfo(handle, CURLINFO_PRIVATE, &transfer);
  return transfer;
}

template <typename Value>
void HttpTransfer::set(CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(handle.get(), option, value);
  if (code == CURLE_OK || refusal_) return;
  refusal_ = {TransportError::Kind::other,
              fmt::format("The request cannot be set up (option {}: {})", static_cast<int>(option),
                          curl_easy_strerror(code))};
}

void HttpTransfer::setTrust(const std::string& caCertificates) {
  curl_blob blob{const_cast<char*>(caCertificates.data()), caCertificates.size(), CURL_BLOB_NOCOPY};
  set(CURLOPT_CAINFO, static_cast<char*>(nullptr));
  set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
  set(CURLOPT_CAINFO_BLOB, &blob);
}

/// Gives libcurl the address, a long query apart. A proxy for plain http needs the whole address as
/// the target, and a redirect another one.
void HttpTransfer::setUrl() {
  const std::string& url = request.url;
  const auto path = url.find('/', url.find("://") + 3);
  const auto query = std::min(url.find('?'), url.size());
  const bool direct = url.starts_with("https:") || isLoopback(url);
  if (url.size() - query < kLongQuery || path > query || request.followRedirects || !direct) {
    set(CURLOPT_URL, url.c_str());
    return;
  }
  set(CURLOPT_URL, url.substr(0, path).c_str());
  set(CURLOPT_REQUEST_TARGET, url.c_str() + path);
}

void HttpTransfer::setHeadersAndBody() {
  for (const auto& [name, value] : request.headers) addHeader(name, ": " + value);
  if (request.body || request.source) setBody();
  set(CURLOPT_HTTPHEADER, headers.get());
}

void HttpTransfer::setBody() {
  if (request.source && request.source->size() <= kSmallBody) {
    request.body = readWhole(*request.source);
    request.source.reset();
  }
  const std::size_t size = request.source ? request.source->size() : request.body->size();
  set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
  if (request.source) {
    set(CURLOPT_POST, 1L);
    set(CURLOPT_READFUNCTION, &HttpTransfer::onRead);
    set(CURLOPT_READDATA, this);
    set(CURLOPT_SEEKFUNCTION, &HttpTransfer::onSeek);
  } else {
    const char* const bytes = request.body->view().data();
    set(CURLOPT_POSTFIELDS, bytes);
  }
  // libcurl would otherwise name its own type, and ask before it sends a large body.
  const bool hasType =
      std::any_of(request.headers.begin(), request.headers.end(),
                  [](const auto& header) { return header.first == "Content-Type"; });
  if (!hasType) addHeader("Content-Type", ":");
  addHeader("Expect", ":");
  if (size > kLargeBody) set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadPiece);
}

/// `rest` is what follows the name. A control character in it could end the header and begin
/// another one.
void HttpTransfer::addHeader(const std::string& name, const std::string& rest) {
  const std::string line = name + rest;
  if (hasControlByte(line)) {
    // Without the value, which may be a secret.
    refusal_ = {TransportError::Kind::other, "A header of the request holds a control character"};
    return;
  }
  curl_slist* longer = curl_slist_append(headers.get(), line.c_str());
  if (!longer) throw std::bad_alloc();
  static_cast<void>(headers.release());
  headers.reset(longer);
}

HttpTransfer::Clock::time_point HttpTransfer::expiry() const {
  return paused_ ? deadline : std::min(deadline, lastActivity + request.timeout);
}

CURLcode HttpTransfer::resume() {
  paused_ = false;
  lastActivity = Clock::now();
  return curl_easy_pause(handle.get(), CURLPAUSE_CONT);  // may call onBody, which may pause again
}

HttpTransfer::Connection HttpTransfer::connection() const {
  curl_tlssessioninfo* session = nullptr;
  const CURLcode code = curl_easy_getinfo(handle.get(), CURLINFO_TLS_SSL_PTR, &session);
  return code == CURLE_OK && session ? session->internals : nullptr;
}

/// Called when a connection is there for the request: more than once when libcurl sends it anew
/// because the first one had died, or for a redirect.
int HttpTransfer::onSending(void* self, char*, char*, int, int) {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  transfer.lastActivity = Clock::now();
  // Not left to onSeek: libcurl seeks only when a part of the body was sent, not when it was read
  // and then waited for the other side's room.
  if (transfer.request.source) transfer.read_ = transfer.request.source->open();
  return CURL_PREREQFUNC_OK;
}

int HttpTransfer::onSocketOpened(void*, curl_socket_t socket, curlsocktype) {
  detectDeadPath(socket);
  return CURL_SOCKOPT_OK;
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
    transfer.paused_ = !transfer.request.sink->onBytes(transfer.status(), bytes);
    return transfer.paused_ ? std::size_t{CURL_WRITEFUNC_PAUSE} : bytes.size();
  }
  std::string& body = transfer.response_.body;
  if (bytes.size() > transfer.request.maxBody - body.size()) {
    transfer.bodyTooLong_ = true;
    return 0;
  }
  body.append(bytes);
  return bytes.size();
}

std::size_t HttpTransfer::onRead(char* out, std::size_t size, std::size_t count, void* self) {
  auto& read = static_cast<HttpTransfer*>(self)->read_;
  const std::size_t room = size * count;
  std::size_t filled = 0;
  // Whole: each piece is a call of the kernel's.
  while (filled < room) {
    const std::size_t more = read(out + filled, room - filled);
    if (more == 0) break;
    filled += more;
  }
  return filled;
}

/// Called when libcurl sends the request anew because its connection had died. onSending is called
/// then, too, and begins the body again.
int HttpTransfer::onSeek(void*, curl_off_t offset, int origin) {
  return offset == 0 && origin == SEEK_SET ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_CANTSEEK;
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

int HttpTransfer::onTrace(CURL*, curl_infotype kind, char* text, std::size_t size, void* self) {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  HttpTrace& trace = *transfer.request.trace;
  if (kind == CURLINFO_TEXT) {
    const auto proxy = proxyNamedIn({text, size});
    if (!proxy.empty()) trace.proxy = proxy;
  } else if (kind == CURLINFO_SSL_DATA_OUT) {
    trace.stage = std::max(trace.stage, HttpTrace::Stage::securing);
  } else if (kind == CURLINFO_HEADER_OUT) {
    const bool isForProxy = std::string_view(text, size).starts_with("CONNECT ");
    trace.stage =
        std::max(trace.stage, isForProxy ? HttpTrace::Stage::tunnelling : HttpTrace::Stage::asking);
  }
  return 0;
}

void HttpTransfer::fillTrace(CURLcode code) {
  using Stage = HttpTrace::Stage;
  HttpTrace& trace = *request.trace;
  const auto number = [this](CURLINFO what) {
    long value = 0;
    curl_easy_getinfo(handle.get(), what, &value);
    return value;
  };
  const auto text = [this](CURLINFO what) {
    char* value = nullptr;
    curl_easy_getinfo(handle.get(), what, &value);
    return std::string(value ? value : "");
  };
  trace.status = status();
  trace.proxyStatus = static_cast<int>(number(CURLINFO_HTTP_CONNECTCODE));
  trace.systemError = static_cast<int>(number(CURLINFO_OS_ERRNO));
  trace.address = text(CURLINFO_PRIMARY_IP);
  trace.contentType = text(CURLINFO_CONTENT_TYPE);
  trace.redirect = text(CURLINFO_REDIRECT_URL);
  curl_header* date = nullptr;
  if (curl_easy_header(handle.get(), "Date", 0, CURLH_HEADER, -1, &date) == CURLHE_OK) {
    const time_t seconds = curl_getdate(date->value, nullptr);
    if (seconds >= 0) trace.date = std::chrono::system_clock::from_time_t(seconds);
  }
  if (code == CURLE_PEER_FAILED_VERIFICATION) {
    trace.certificate = certificateOf(number(CURLINFO_SSL_VERIFYRESULT));
  }
  if (trace.status > 0) {
    trace.stage = Stage::answered;
  } else if (code == CURLE_COULDNT_RESOLVE_PROXY) {
    trace.stage = Stage::resolvingProxy;
  } else if (trace.stage == Stage::preparing) {
    curl_off_t resolved = 0;  // microseconds
    curl_easy_getinfo(handle.get(), CURLINFO_NAMELOOKUP_TIME_T, &resolved);
    trace.stage = resolved > 0 ? Stage::connecting : Stage::resolving;
  }
}

void HttpTransfer::finish(CURLcode code) {
  if (code == CURLE_OK) {
    if (request.trace) fillTrace(code);
    response_.status = status();
    completion(std::move(response_));
  } else if (bodyTooLong_) {
    fail({TransportError::Kind::other,
          fmt::format("The response is longer than {} bytes", request.maxBody)},
         code);
  } else {
    fail({kindOf(code), errorText[0] != 0 ? errorText : curl_easy_strerror(code)}, code);
  }
}

void HttpTransfer::fail(TransportError error, CURLcode code) {
  // What was refused has gone no way.
  if (request.trace && !refusal_) fillTrace(code);
  completion(tl::make_unexpected(std::move(error)));
}

}  // namespace verdo
