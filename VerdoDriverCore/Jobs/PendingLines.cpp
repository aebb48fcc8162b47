#include "VerdoDriverCore/Jobs/PendingLines.h"

#include <utility>

namespace verdo {

/// False when the line does not fit any more and must wait for the next batch.
bool PendingLines::addOne(std::string_view line) {
  const bool first = batch_.empty();
  const std::size_t before = batch_.bytes();
  batch_.add(line);
  if (batch_.bytes() <= limit_ || first) return true;
  batch_.truncate(before);
  return false;
}

void PendingLines::add(std::span<const std::string_view> lines) {
  MutexLock lock(lock_);
  for (const auto line : lines) {
    while (!closed_ && (full_ || !addOne(line))) {
      full_ = true;
      changed_.notifyAll();
      changed_.wait(lock_);
    }
    if (closed_) return;
  }
}

void PendingLines::waitUntilFull(Clock::time_point deadline) {
  MutexLock lock(lock_);
  while (!full_ && !woken_ && changed_.waitUntil(lock_, deadline)) {
  }
  woken_ = false;
}

void PendingLines::wakeUp() {
  MutexLock lock(lock_);
  woken_ = true;
  changed_.notifyAll();
}

LineBatch PendingLines::take() {
  MutexLock lock(lock_);
  LineBatch taken = std::exchange(batch_, LineBatch(std::move(spare_)));
  full_ = false;
  changed_.notifyAll();
  return taken;
}

void PendingLines::recycle(ByteBuffer buffer) {
  // The memory that one very long line took is not kept.
  if (buffer.capacity() > 2 * limit_) return;
  MutexLock lock(lock_);
  spare_ = std::move(buffer);
}

void PendingLines::close() {
  MutexLock lock(lock_);
  closed_ = true;
  changed_.notifyAll();
}

}  // namespace verdo
