#pragma once

#include "VerdoDriverCore/System/Sync.h"

#include <cstddef>
#include <cstdint>

namespace verdo {

/// How large a post may be, as far as one run has learnt: proxies refuse larger ones (nginx those
/// over 1 MB, unless told). Shared by all jobs of the run; any thread may call any operation.
class BodyLimit {
 public:
  /// Bodies up to this size are not made smaller, whatever becomes of them, bytes.
  static constexpr std::size_t kMinBytes = 1024;
  /// Good posts near the limit after which a larger one is tried again.
  static constexpr int kPostsUntilDoubled = 10;

  /// The largest size to send, bytes; SIZE_MAX as long as none was refused.
  std::size_t bytes() const EXCLUDES(lock_);
  /// A body of this size was refused: half of it is the limit now.
  void refused(std::size_t size) EXCLUDES(lock_);
  /// A body of this size has passed. Small ones prove nothing about the limit.
  void passed(std::size_t size) EXCLUDES(lock_);

 private:
  mutable Mutex lock_;
  std::size_t limit_ GUARDED_BY(lock_) = SIZE_MAX;
  int passed_ GUARDED_BY(lock_) = 0;
};

}  // namespace verdo
