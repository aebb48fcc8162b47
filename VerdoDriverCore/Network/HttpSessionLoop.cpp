#include "VerdoDriverCore/Network/HttpSessionLoop.h"

#include "VerdoDriverCore/System/StartThread.h"
#include "VerdoDriverCore/System/ThreadName.h"
#include "VerdoDriverCore/System/WipedMemory.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr std::chrono::milliseconds kMaxWait{std::numeric_limits<int>::max()};

}  // namespace

HttpSessionLoop::HttpSessionLoop(HttpSession::Options options) : options_(std::move(options)) {
  for (auto* const pool : {&downloads_, &calls_}) {
    *pool = pools_.emplace_back(std::make_unique<ConnectionPool>(poller_)).get();
  }
  thread_ = startThread([this] { run(); });
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
    first = mail_.isEmpty();
    mail_.starting.push_back(std::move(transfer));
  }
  // Later mail is found by the wake-up that is on its way already.
  if (first) poller_.wakeUp();
  return nullptr;
}

void HttpSessionLoop::cancel(std::int64_t identifier) {
  bool first = false;
  {
    MutexLock lock(lock_);
    first = mail_.isEmpty();
    mail_.cancelling.push_back(identifier);
  }
  if (first) poller_.wakeUp();
}

void HttpSessionLoop::resume(std::int64_t identifier) {
  bool first = false;
  {
    MutexLock lock(lock_);
    first = mail_.isEmpty();
    mail_.resuming.push_back(identifier);
  }
  if (first) poller_.wakeUp();
}

void HttpSessionLoop::dropConnections() {
  {
    MutexLock lock(lock_);
    mail_.drop = true;
  }
  poller_.wakeUp();
}

std::uint64_t HttpSessionLoop::nextTurn() {
  poller_.wakeUp();
  return turns_;
}

void HttpSessionLoop::shutDown() {
  {
    MutexLock lock(lock_);
    ending_ = true;
  }
  poller_.wakeUp();
  if (thread_.joinable()) thread_.join();
}

void HttpSessionLoop::run() {
  setThreadName("http");
  while (readMailbox()) {
    ++turns_;
    failUnwatched();
    expireOverdue();
    dropIfDue();
    removeIdlePools();
    for (const auto& ready : poller_.wait(untilNextLook())) dispatch(ready);
    for (const auto& pool : pools_) pool->onTime(Clock::now());
    reportFinished();
  }
  while (!running_.empty()) remove(running_.begin()->first)->fail(TransportError::cancelled());
  pools_.clear();
  wipeUsedStack();
}

/// Takes in what other threads asked for. False when the session ends.
bool HttpSessionLoop::readMailbox() {
  Mail mail;
  bool ending = false;
  {
    MutexLock lock(lock_);
    std::swap(mail, mail_);
    ending = ending_;
  }
  for (auto& transfer : mail.starting) {
    ConnectionPool& pool = poolFor(*transfer);
    add(std::move(transfer), pool);
  }
  for (const auto identifier : mail.cancelling) {
    if (const auto transfer = remove(identifier)) transfer->fail(TransportError::cancelled());
  }
  for (const auto identifier : mail.resuming) goOn(identifier);
  if (mail.drop && !dropDue_) dropDue_ = std::max(Clock::now(), nextDrop_);
  return !ending;
}

/// Resumes a paused transfer.
void HttpSessionLoop::goOn(std::int64_t identifier) {
  const auto found = running_.find(identifier);
  if (found == running_.end()) return;
  Running& running = found->second;
  const CURLcode code = running.transfer->resume();
  if (code != CURLE_OK) return remove(identifier)->finish(code);
  // The expiry that was entered while it was paused is too late.
  expiries_.erase(running.expiry);
  running.expiry = expiries_.emplace(running.transfer->expiry(), identifier);
}

void HttpSessionLoop::add(std::unique_ptr<HttpTransfer> transfer, ConnectionPool& pool) {
  if (auto error = pool.add(*transfer)) {
    transfer->fail(std::move(*error));
    return;
  }
  const auto identifier = transfer->identifier;
  const auto expiry = expiries_.emplace(transfer->expiry(), identifier);
  running_.emplace(identifier, Running{std::move(transfer), expiry});
}

std::chrono::milliseconds HttpSessionLoop::untilNextLook() const {
  const auto now = Clock::now();
  auto next = expiries_.empty() ? now + std::chrono::hours(1) : expiries_.begin()->first;
  if (dropDue_) next = std::min(next, *dropDue_);
  for (const auto& pool : pools_) {
    if (pool->due()) next = std::min(next, *pool->due());
  }
  // Rounded up, lest the loop spins through the last millisecond.
  return std::clamp(std::chrono::ceil<std::chrono::milliseconds>(next - now),
                    std::chrono::milliseconds::zero(), kMaxWait);
}

void HttpSessionLoop::dispatch(const Poller::Ready& ready) {
  for (const auto& pool : pools_) {
    if (pool->watches(ready.fd)) {
      pool->onReady(ready);
      return;
    }
  }
}

void HttpSessionLoop::reportFinished() {
  for (const auto& pool : pools_) {
    while (true) {
      const auto [finished, code] = pool->nextFinished();
      if (!finished) break;
      remove(finished->identifier)->finish(code);
    }
  }
}

/// Ends the transfers that wait for sockets which the system does not watch.
void HttpSessionLoop::failUnwatched() {
  for (const auto& pool : pools_) {
    for (const auto& [identifier, reason] : pool->takeUnwatched()) {
      const auto transfer = remove(identifier);
      if (!transfer) continue;
      transfer->fail({TransportError::Kind::other,
                      fmt::format("The connection cannot be watched ({})", reason)});
    }
  }
}

/// Ends the transfers whose time is up.
void HttpSessionLoop::expireOverdue() {
  const auto now = Clock::now();
  while (!expiries_.empty() && expiries_.begin()->first <= now) {
    const auto identifier = expiries_.begin()->second;
    Running& running = running_.at(identifier);
    const auto expiry = running.transfer->expiry();
    if (expiry > now) {
      expiries_.erase(running.expiry);
      running.expiry = expiries_.emplace(expiry, identifier);
    } else {
      timeOut(identifier);
    }
  }
}

/// Ends a transfer whose time is up, and sees to its connection.
void HttpSessionLoop::timeOut(std::int64_t identifier) {
  HttpTransfer& late = *running_.at(identifier).transfer;
  ConnectionPool& pool = *late.pool;
  const auto connection = late.connection();
  if (late.pinged) {
    // A ping that went another way proves nothing.
    auto silent = transfersOn(pool, connection == late.pinged ? connection : nullptr);
    const auto asked = late.lastActivity;
    remove(identifier);
    std::erase(silent, identifier);
    if (hasMovedSince(asked, silent)) return;
    for (const auto transfer : silent) {
      remove(transfer)->fail({TransportError::Kind::other, "The connection no longer answers"});
    }
    return;
  }
  if (isInUse(pool)) leavePools();
  char* url = nullptr;
  curl_easy_getinfo(late.handle.get(), CURLINFO_EFFECTIVE_URL, &url);
  const std::string asked = url ? url : late.request.url;
  const auto ended = remove(identifier);
  ping(pool, connection, asked);
  ended->fail(TransportError::timedOut());
}

/// Asks whether a connection still answers, if anyone else uses it.
void HttpSessionLoop::ping(ConnectionPool& pool, HttpTransfer::Connection connection,
                           const std::string& url) {
  const auto waiting = transfersOn(pool, connection);
  const bool underWay = std::any_of(running_.begin(), running_.end(), [&](const auto& entry) {
    return entry.second.transfer->pinged == connection && entry.second.transfer->pool == &pool;
  });
  if (waiting.empty() || underWay) return;
  auto question = HttpTransfer::ping(url, options_);
  if (question->refusal()) return;
  question->identifier = nextIdentifier();
  question->pinged = connection;
  add(std::move(question), pool);
}

bool HttpSessionLoop::hasMovedSince(Clock::time_point time,
                                    const std::vector<std::int64_t>& transfers) const {
  return std::any_of(transfers.begin(), transfers.end(), [&](std::int64_t identifier) {
    return running_.at(identifier).transfer->lastActivity > time;
  });
}

/// The transfers that go over an encrypted connection; none for a null one.
std::vector<std::int64_t> HttpSessionLoop::transfersOn(const ConnectionPool& pool,
                                                       HttpTransfer::Connection connection) const {
  std::vector<std::int64_t> found;
  if (!connection) return found;
  for (const auto& [identifier, running] : running_) {
    if (running.transfer->pool == &pool && running.transfer->connection() == connection) {
      found.push_back(identifier);
    }
  }
  return found;
}

void HttpSessionLoop::dropIfDue() {
  if (!dropDue_ || *dropDue_ > Clock::now()) return;
  dropDue_.reset();
  nextDrop_ = Clock::now() + options_.dropInterval;
  leavePools();
  while (!running_.empty()) remove(running_.begin()->first)->fail(TransportError::dropped());
}

ConnectionPool& HttpSessionLoop::poolFor(const HttpTransfer& transfer) {
  return transfer.request.sink ? *downloads_ : *calls_;
}

/// Whether new transfers go to it.
bool HttpSessionLoop::isInUse(const ConnectionPool& pool) const {
  return &pool == downloads_ || &pool == calls_;
}

/// Has later transfers open connections of their own.
void HttpSessionLoop::leavePools() try {
  for (auto* const pool : {&downloads_, &calls_}) {
    *pool = pools_.emplace_back(std::make_unique<ConnectionPool>(poller_)).get();
  }
} catch (const std::runtime_error&) {
  // No memory for another one. The old one serves on: late is better than not at all.
}

void HttpSessionLoop::removeIdlePools() {
  if (pools_.size() == 2) return;
  std::erase_if(pools_, [&](const auto& pool) { return !isInUse(*pool) && pool->isIdle(); });
}

std::unique_ptr<HttpTransfer> HttpSessionLoop::remove(std::int64_t identifier) {
  const auto found = running_.find(identifier);
  if (found == running_.end()) return nullptr;
  auto transfer = std::move(found->second.transfer);
  expiries_.erase(found->second.expiry);
  running_.erase(found);
  transfer->pool->remove(*transfer);
  return transfer;
}

}  // namespace verdo
