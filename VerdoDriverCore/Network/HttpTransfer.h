#pragma once

#include "VerdoDriverCore/Network/HttpSession.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <curl/curl.h>

namespace verdo {

struct CurlEasyFree {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

class ConnectionPool;

/// One request on its way through libcurl. Built on the caller's thread, then owned by the I/O
/// thread.
struct HttpTransfer {
  using Clock = HttpRequest::Clock;
  /// What tells one encrypted connection from another while transfers use it; null: none yet, or
  /// one in clear, which no two transfers share.
  using Connection = const void*;

  /// `options` must outlive the transfer. Throws std::bad_alloc. What libcurl or the protocol does
  /// not take is in refusal().
  HttpTransfer(HttpRequest request, HttpSession::Completion completion,
               const HttpSession::Options& options);
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  /// When the transfer times out, should nothing move until then. A paused one has only its
  /// deadline: it waits for its sink, not for the network.
  Clock::time_point expiry() const;
  /// Goes on after a pause. Gives what libcurl failed with.
  [[nodiscard]] CURLcode resume();
  /// A question to the server of `url` that only asks whether it still answers: HTTP's "OPTIONS *".
  static std::unique_ptr<HttpTransfer> ping(const std::string& url,
                                            const HttpSession::Options& options);
  /// The transfer of a handle; null for one of libcurl's own.
  static HttpTransfer* of(CURL* handle);

  /// Why the request must not be sent, if so.
  const std::optional<TransportError>& refusal() const { return refusal_; }
  /// The connection that it goes over now.
  Connection connection() const;
  /// Gives the completion what libcurl ended with.
  void finish(CURLcode code);
  /// `code` is what libcurl ended with, if it was libcurl that ended it.
  void fail(TransportError error, CURLcode code = CURLE_ABORTED_BY_CALLBACK);

  std::int64_t identifier = 0;
  HttpRequest request;
  HttpSession::Completion completion;
  Clock::time_point lastActivity;
  Clock::time_point deadline;
  ConnectionPool* pool = nullptr;  ///< the one that it runs in
  Connection pinged = nullptr;     ///< of a ping: the connection that it is about
  std::unique_ptr<CURL, CurlEasyFree> handle;
  std::unique_ptr<curl_slist, CurlListFree> headers;
  char errorText[CURL_ERROR_SIZE] = {};

 private:
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onRead(char* out, std::size_t size, std::size_t count, void* self);
  static int onSeek(void* self, curl_off_t offset, int origin);
  static int onProgress(void* self, curl_off_t downTotal, curl_off_t downNow, curl_off_t upTotal,
                        curl_off_t upNow);
  static int onSending(void* self, char* remoteIp, char* localIp, int remotePort, int localPort);
  static int onTrace(CURL* handle, curl_infotype kind, char* text, std::size_t size, void* self);
  static int onSocketOpened(void* self, curl_socket_t socket, curlsocktype purpose);
  template <typename Value>
  void set(CURLoption option, Value value);
  void setTrust(const std::string& caCertificates);
  void setUrl();
  void setHeadersAndBody();
  void setBody();
  void addHeader(const std::string& name, const std::string& rest);
  int status() const;
  void fillTrace(CURLcode code);

  std::optional<TransportError> refusal_;
  HttpBodySource::Read read_;
  HttpResponse response_;
  curl_off_t moved_ = 0;
  bool bodyTooLong_ = false;
  bool paused_ = false;  ///< the sink has no room
};

}  // namespace verdo
