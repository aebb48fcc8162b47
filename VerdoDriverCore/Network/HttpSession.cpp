#include "VerdoDriverCore/Network/HttpSession.h"

#include "VerdoDriverCore/Network/HttpSessionLoop.h"
#include "VerdoDriverCore/Network/HttpTransfer.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/System/WipedMemory.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <curl/curl.h>
#include <openssl/crypto.h>

namespace verdo {
namespace {

void initialiseCurlOnce() {
  // Asked first: libcurl does not look, and what it then calls of OpenSSL may crash.
  if (!OSSL_LIB_CTX_get0_global_default()) throw std::runtime_error("OpenSSL cannot be set up");
  // Its buffers hold the headers of requests, with a secret each.
  static const CURLcode code = curl_global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, wipeAndFree,
                                                    wipeAndReallocate, ::strdup, std::calloc);
  if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
}

/// Where a blocked caller finds its result. Shared with the completion, which can therefore wake
/// the caller after it has let go of the lock: a caller woken before would block on it at once.
class Reply {
 public:
  void put(HttpResult result) EXCLUDES(lock_) {
    {
      MutexLock lock(lock_);
      result_ = std::move(result);
    }
    arrived_.notifyOne();
  }
  bool waitFor(std::chrono::steady_clock::duration timeout) EXCLUDES(lock_) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(lock_);
    while (!result_ && arrived_.waitUntil(lock_, deadline)) {
    }
    return result_.has_value();
  }
  HttpResult take() EXCLUDES(lock_) {
    MutexLock lock(lock_);
    while (!result_) arrived_.wait(lock_);
    return std::move(*result_);
  }

 private:
  Mutex lock_;
  Condition arrived_;
  std::optional<HttpResult> result_ GUARDED_BY(lock_);
};

}  // namespace

TransportError TransportError::cancelled() { return {Kind::cancelled, "cancelled"}; }

TransportError TransportError::timedOut() {
  return {Kind::timedOut, curl_easy_strerror(CURLE_OPERATION_TIMEDOUT)};
}

TransportError TransportError::dropped() { return {Kind::dropped, "the connection was dropped"}; }

HttpTask::HttpTask(std::shared_ptr<HttpSessionLoop> loop, std::unique_ptr<HttpTransfer> transfer,
                   std::int64_t identifier)
    : loop_(std::move(loop)), identifier_(identifier), transfer_(std::move(transfer)) {}

HttpTask::~HttpTask() = default;

void HttpTask::start() {
  std::unique_ptr<HttpTransfer> refused;
  {
    // Held while the loop takes the transfer, so that a cancellation cannot overtake the start.
    MutexLock lock(lock_);
    refused = std::move(transfer_);
    if (!cancelled_ && !refused->refusal()) refused = loop_->start(std::move(refused));
  }
  if (refused) refused->fail(refused->refusal().value_or(TransportError::cancelled()));
}

void HttpTask::cancel() {
  {
    MutexLock lock(lock_);
    cancelled_ = true;
    if (transfer_) return;
  }
  loop_->cancel(identifier_);
}

void HttpTask::resume() { loop_->resume(identifier_); }

HttpSession::HttpSession() : HttpSession(Options{}) {}

HttpSession::HttpSession(Options options) {
  initialiseCurlOnce();
  loop_ = std::make_shared<HttpSessionLoop>(std::move(options));
}

HttpSession::~HttpSession() { loop_->shutDown(); }

std::shared_ptr<HttpTask> HttpSession::task(HttpRequest request, Completion completion) {
  auto transfer =
      std::make_unique<HttpTransfer>(std::move(request), std::move(completion), loop_->options());
  transfer->identifier = loop_->nextIdentifier();
  const auto identifier = transfer->identifier;
  return std::make_shared<HttpTask>(loop_, std::move(transfer), identifier);
}

HttpResult HttpSession::perform(HttpRequest request,
                                const std::function<void(const std::shared_ptr<HttpTask>&)>& onTask,
                                const HttpHeartbeat& heartbeat) {
  const auto reply = std::make_shared<Reply>();
  const auto started =
      task(std::move(request), [reply](HttpResult result) { reply->put(std::move(result)); });
  if (onTask) onTask(started);
  started->start();
  try {
    auto turns = loop_->nextTurn();
    while (heartbeat.act && !reply->waitFor(heartbeat.every)) {
      if (const auto now = loop_->nextTurn(); std::exchange(turns, now) != now) heartbeat.act();
    }
  } catch (...) {
    started->cancel();
    reply->take();
    throw;
  }
  return reply->take();
}

void HttpSession::dropConnections() { loop_->dropConnections(); }

}  // namespace verdo
