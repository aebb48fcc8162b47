#include "VerdoDriverCore/Jobs/BodyLimit.h"

#include <algorithm>

namespace verdo {

std::size_t BodyLimit::bytes() const {
  MutexLock lock(lock_);
  return limit_;
}

void BodyLimit::refused(std::size_t size) {
  MutexLock lock(lock_);
  // What another job has learnt meanwhile holds for a body that was on its way already.
  limit_ = std::min(limit_, std::max(size / 2, kMinBytes));
  passed_ = 0;
}

void BodyLimit::passed(std::size_t size) {
  MutexLock lock(lock_);
  if (limit_ == SIZE_MAX || size <= limit_ / 2 || ++passed_ < kPostsUntilDoubled) return;
  limit_ = limit_ > SIZE_MAX / 2 ? SIZE_MAX : 2 * limit_;
  passed_ = 0;
}

}  // namespace verdo
