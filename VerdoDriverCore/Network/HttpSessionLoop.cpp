#include "VerdoDriverCore/Network/HttpSessionLoop.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>

#include "VerdoDriverCore/Process/ThreadName.h"

namespace verdo {
namespace {

/// More idle connections than a driver ever has calls at once: libcurl closes connections beyond
/// this number even while it needs them.
constexpr long kConnectionCache = 4096;

}  // namespace

HttpSessionLoop::HttpSessionLoop() : multi_(curl_multi_init()) {
  if (!multi_) throw std::runtime_error("no memory for another network session");
  curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING, long{CURLPIPE_MULTIPLEX});
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, kConnectionCache);
  thread_ = std::thread([this] { run(); });
}

HttpSessionLoop::~HttpSessionLoop() { shutDown(); }

std::int64_t HttpSessionLoop::nextIdentifier() {
  MutexLock lock(lock_);
  return ++lastIdentifier_;
}

std::unique_ptr<HttpTransfer> HttpSessionLoop::start(std::unique_ptr<HttpTransfer> transfer) {
  {
    MutexLock lock(lock_);
    if (ending_) return transfer;
    starting_.push_back(std::move(transfer));
  }
  curl_multi_wakeup(multi_.get());
  return nullptr;
}

void HttpSessionLoop::cancel(std::int64_t identifier) {
  {
    MutexLock lock(lock_);
    cancelling_.push_back(identifier);
  }
  curl_multi_wakeup(multi_.get());
}

void HttpSessionLoop::shutDown() {
  {
    MutexLock lock(lock_);
    ending_ = true;
  }
  curl_multi_wakeup(multi_.get());
  if (thread_.joinable()) thread_.join();
}

void HttpSessionLoop::run() {
  setThreadName("http");
  while (readMailbox()) {
    int active = 0;
    curl_multi_perform(multi_.get(), &active);
    reportFinished();
    const auto wait = expireOverdue() - Clock::now();
    // Rounded up, lest the loop spins through the last millisecond.
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    constexpr std::int64_t kLongest = std::numeric_limits<int>::max();
    curl_multi_poll(multi_.get(), nullptr, 0,
                    static_cast<int>(std::clamp<std::int64_t>(milliseconds, 0, kLongest)), nullptr);
  }
  while (!running_.empty()) remove(running_.begin()->first)->fail(TransportError::cancelled());
}

/// Takes in what other threads asked for. False when the session ends.
bool HttpSessionLoop::readMailbox() {
  std::vector<std::unique_ptr<HttpTransfer>> starting;
  std::vector<std::int64_t> cancelling;
  bool ending = false;
  {
    MutexLock lock(lock_);
    starting.swap(starting_);
    cancelling.swap(cancelling_);
    ending = ending_;
  }
  for (auto& transfer : starting) add(std::move(transfer));
  for (const auto identifier : cancelling) {
    if (const auto transfer = remove(identifier)) transfer->fail(TransportError::cancelled());
  }
  return !ending;
}

void HttpSessionLoop::add(std::unique_ptr<HttpTransfer> transfer) {
  const CURLMcode code = curl_multi_add_handle(multi_.get(), transfer->handle.get());
  if (code != CURLM_OK) {
    transfer->fail({TransportError::Kind::other, curl_multi_strerror(code)});
    return;
  }
  const auto identifier = transfer->identifier;
  const auto look = looks_.emplace(transfer->expiry(), identifier);
  running_.emplace(identifier, Running{std::move(transfer), look});
}

void HttpSessionLoop::reportFinished() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;
    HttpTransfer* finished = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &finished);
    const auto transfer = remove(finished->identifier);
    transfer->finish(code);
  }
}

/// Ends the transfers whose time is up. Gives the time of the next look.
HttpSessionLoop::Clock::time_point HttpSessionLoop::expireOverdue() {
  const auto now = Clock::now();
  while (!looks_.empty() && looks_.begin()->first <= now) {
    const auto identifier = looks_.begin()->second;
    Running& running = running_.at(identifier);
    const auto expiry = running.transfer->expiry();
    if (expiry > now) {
      looks_.erase(running.look);
      running.look = looks_.emplace(expiry, identifier);
    } else {
      remove(identifier)->fail(TransportError::timedOut());
    }
  }
  return looks_.empty() ? now + std::chrono::hours(1) : looks_.begin()->first;
}

std::unique_ptr<HttpTransfer> HttpSessionLoop::remove(std::int64_t identifier) {
  const auto found = running_.find(identifier);
  if (found == running_.end()) return nullptr;
  auto transfer = std::move(found->second.transfer);
  looks_.erase(found->second.look);
  running_.erase(found);
  curl_multi_remove_handle(multi_.get(), transfer->handle.get());
  return transfer;
}

}  // namespace verdo
