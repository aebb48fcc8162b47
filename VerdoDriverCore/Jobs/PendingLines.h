#pragma once

#include "VerdoDriverCore/Network/LineBatch.h"
#include "VerdoDriverCore/System/Sync.h"

#include <memory>
#include <span>
#include <string_view>

namespace verdo {

/// The output of a job that still has to be posted. Producers add lines, the worker takes batches;
/// a producer waits while a full batch has not been taken, so that memory stays bounded however
/// much a job prints. Any thread may call any operation.
class PendingLines {
 public:
  using Clock = std::chrono::steady_clock;

  /// The most that one batch's body holds, bytes; a single longer line makes a batch of its own.
  static constexpr std::size_t kBatchBytes = 8u << 20;

  explicit PendingLines(std::size_t batchBytes = kBatchBytes) : limit_(batchBytes) {}

  /// Adds the lines in order, waiting while the batch is full. After close() they are dropped.
  void add(std::span<const std::string_view> lines) EXCLUDES(lock_);
  /// Blocks until `deadline`, or until a batch is full, or wakeUp().
  void waitUntilFull(Clock::time_point deadline) EXCLUDES(lock_);
  /// Ends the current waitUntilFull(), or else the next one.
  void wakeUp() EXCLUDES(lock_);
  /// The lines that have come so far, as one batch, perhaps an empty one.
  LineBatch take() EXCLUDES(lock_);
  /// Gives the memory of a posted batch back for the next one.
  void recycle(ByteBuffer buffer) EXCLUDES(lock_);
  /// Nobody will take lines any more: lets waiting producers go.
  void close() EXCLUDES(lock_);

 private:
  bool addOne(std::string_view line) REQUIRES(lock_);

  const std::size_t limit_;
  Mutex lock_;
  Condition changed_;
  LineBatch batch_ GUARDED_BY(lock_);
  ByteBuffer spare_ GUARDED_BY(lock_);
  bool full_ GUARDED_BY(lock_) = false;
  bool woken_ GUARDED_BY(lock_) = false;
  bool closed_ GUARDED_BY(lock_) = false;
};

}  // namespace verdo
