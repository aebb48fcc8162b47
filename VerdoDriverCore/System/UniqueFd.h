#pragma once

#include <utility>

namespace verdo {

/// Owns one file descriptor and closes it at the end. Moves, does not copy; not thread-safe.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd() { reset(); }

  /// The descriptor, or -1 when there is none.
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset();
  /// Gives the descriptor away, for the caller to close.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

/// Makes reads and writes of the descriptor return EAGAIN instead of blocking. Throws
/// std::system_error.
void setNonBlocking(int fd);

}  // namespace verdo
