#include "VerdoDriverCore/Network/BodyQueue.h"

#include <utility>

namespace verdo {
namespace {

/// The reader is woken for no less, unless the body ends: waking it for each piece that the network
/// delivers would cost more than writing does.
constexpr std::size_t kWorthAWrite = 128 * 1024;

}  // namespace

bool BodyQueue::onBytes(int status, std::string_view bytes) {
  if (status < 200 || status > 299) return true;
  bool wakes = false;
  bool taken = false;
  {
    MutexLock lock(lock_);
    const std::size_t before = waiting_.size();
    taken = before == 0 || bytes.size() <= kMaxBytes - before;
    if (taken) waiting_.append(bytes);
    paused_ = !taken;
    wakes = !taken || (before < kWorthAWrite && waiting_.size() >= kWorthAWrite);
  }
  if (wakes) readable_.notifyOne();
  return taken;
}

void BodyQueue::end(HttpResult result) {
  {
    MutexLock lock(lock_);
    if (!result) waiting_.clear();
    result_ = std::move(result);
  }
  readable_.notifyOne();
}

bool BodyQueue::next(ByteBuffer& bytes, HttpTask& task) {
  bytes.clear();
  bool wasPaused = false;
  {
    MutexLock lock(lock_);
    while (!result_ && !paused_ && waiting_.size() < kWorthAWrite) readable_.wait(lock_);
    std::swap(bytes, waiting_);
    wasPaused = std::exchange(paused_, false);
  }
  if (wasPaused) task.resume();
  return bytes.size() > 0;
}

HttpResult BodyQueue::takeResult() {
  MutexLock lock(lock_);
  while (!result_) readable_.wait(lock_);
  return std::move(*result_);
}

}  // namespace verdo
