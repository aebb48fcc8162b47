#include "VerdoDriverCore/Network/HttpSessionLoop.h"

#include "VerdoDriverCore/System/ThreadName.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <system_error>

namespace verdo {
namespace {

/// More idle connections than a driver ever has calls at once: libcurl closes connections beyond
/// this number even while it needs them.
constexpr long kConnectionCache = 4096;

constexpr std::chrono::milliseconds kShortestWait{0};
constexpr std::chrono::milliseconds kLongestWait{std::numeric_limits<int>::max()};

}  // namespace

HttpSessionLoop::HttpSessionLoop() : multi_(curl_multi_init()) {
  if (!multi_) throw std::runtime_error("no memory for another network session");
  curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING, long{CURLPIPE_MULTIPLEX});
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, kConnectionCache);
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETFUNCTION, &HttpSessionLoop::onSocket);
  curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERFUNCTION, &HttpSessionLoop::onTimer);
  curl_multi_setopt(multi_.get(), CURLMOPT_TIMERDATA, this);
  thread_ = std::thread([this] { run(); });
}

HttpSessionLoop::~HttpSessionLoop() { shutDown(); }

std::int64_t HttpSessionLoop::nextIdentifier() {
  MutexLock lock(lock_);
  return ++lastIdentifier_;
}

std::unique_ptr<HttpTransfer> HttpSessionLoop::start(std::unique_ptr<HttpTransfer> transfer) {
  bool first = false;
  {
    MutexLock lock(lock_);
    if (ending_) return transfer;
    first = isMailboxEmpty();
    starting_.push_back(std::move(transfer));
  }
  // Later mail is found by the wake-up that is on its way already.
  if (first) poller_.wakeUp();
  return nullptr;
}

void HttpSessionLoop::cancel(std::int64_t identifier) {
  bool first = false;
  {
    MutexLock lock(lock_);
    first = isMailboxEmpty();
    cancelling_.push_back(identifier);
  }
  if (first) poller_.wakeUp();
}

void HttpSessionLoop::resume(std::int64_t identifier) {
  bool first = false;
  {
    MutexLock lock(lock_);
    first = isMailboxEmpty();
    resuming_.push_back(identifier);
  }
  if (first) poller_.wakeUp();
}

void HttpSessionLoop::shutDown() {
  {
    MutexLock lock(lock_);
    ending_ = true;
  }
  poller_.wakeUp();
  if (thread_.joinable()) thread_.join();
}

int HttpSessionLoop::onSocket(CURL*, curl_socket_t socket, int what, void* self, void*) {
  auto& loop = *static_cast<HttpSessionLoop*>(self);
  const bool read = what == CURL_POLL_IN || what == CURL_POLL_INOUT;
  const bool write = what == CURL_POLL_OUT || what == CURL_POLL_INOUT;
  try {
    loop.poller_.watch(socket, read, write);
    return 0;
  } catch (const std::system_error&) {
    return -1;  // libcurl fails the transfers of this multi handle rather than wait in vain
  }
}

int HttpSessionLoop::onTimer(CURLM*, long milliseconds, void* self) {
  auto& loop = *static_cast<HttpSessionLoop*>(self);
  loop.curlTimer_.reset();
  if (milliseconds >= 0) loop.curlTimer_ = Clock::now() + std::chrono::milliseconds(milliseconds);
  return 0;
}

void HttpSessionLoop::run() {
  setThreadName("http");
  while (readMailbox()) {
    auto next = expireOverdue();
    if (curlTimer_) next = std::min(next, *curlTimer_);
    // Rounded up, lest the loop spins through the last millisecond.
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    const auto ready = poller_.wait(std::clamp(wait, kShortestWait, kLongestWait));
    int active = 0;
    for (const auto& [fd, readable, writable] : ready) {
      const int events = (readable ? CURL_CSELECT_IN : 0) | (writable ? CURL_CSELECT_OUT : 0);
      curl_multi_socket_action(multi_.get(), fd, events, &active);
    }
    if (curlTimer_ && *curlTimer_ <= Clock::now()) {
      curlTimer_.reset();
      curl_multi_socket_action(multi_.get(), CURL_SOCKET_TIMEOUT, 0, &active);
    }
    reportFinished();
  }
  while (!running_.empty()) remove(running_.begin()->first)->fail(TransportError::cancelled());
}

/// Takes in what other threads asked for. False when the session ends.
bool HttpSessionLoop::readMailbox() {
  std::vector<std::unique_ptr<HttpTransfer>> starting;
  std::vector<std::int64_t> cancelling;
  std::vector<std::int64_t> resuming;
  bool ending = false;
  {
    MutexLock lock(lock_);
    starting.swap(starting_);
    cancelling.swap(cancelling_);
    resuming.swap(resuming_);
    ending = ending_;
  }
  for (auto& transfer : starting) add(std::move(transfer));
  for (const auto identifier : cancelling) {
    if (const auto transfer = remove(identifier)) transfer->fail(TransportError::cancelled());
  }
  for (const auto identifier : resuming) goOn(identifier);
  return !ending;
}

/// Resumes a paused transfer.
void HttpSessionLoop::goOn(std::int64_t identifier) {
  const auto found = running_.find(identifier);
  if (found == running_.end()) return;
  Running& running = found->second;
  const CURLcode code = running.transfer->resume();
  if (code != CURLE_OK) return remove(identifier)->finish(code);
  // The look that was entered while it was paused is too late.
  looks_.erase(running.look);
  running.look = looks_.emplace(running.transfer->expiry(), identifier);
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
