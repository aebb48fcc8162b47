#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace verdo::test {

/// Keeps what several threads tell, in order. Any thread may call any operation.
template <typename T>
class Recorder {
 public:
  void add(T item) {
    const std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    items_.clear();
  }
  std::vector<T> all() const {
    const std::lock_guard lock(mutex_);
    return items_;
  }
  /// True as soon as `count` items match, false when the time ran out first.
  template <typename Predicate>
  bool waitFor(const Predicate& matches, std::chrono::milliseconds timeout, long count = 1) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      return std::count_if(items_.begin(), items_.end(), matches) >= count;
    });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<T> items_;
};

/// Matches texts with this text in them.
inline auto holding(const std::string& text) {
  return [text](const std::string& line) { return line.find(text) != std::string::npos; };
}

}  // namespace verdo::test
