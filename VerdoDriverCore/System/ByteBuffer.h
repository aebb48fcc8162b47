#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace verdo {

/// Bytes that grow at the end. Unlike std::string it gives out room that nobody has written zeros
/// to first, which the output of a chatty job would pay for twice. Moves, does not copy.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  explicit ByteBuffer(std::string_view bytes) { append(bytes); }
  ByteBuffer(ByteBuffer&& other) noexcept { swap(other); }
  ByteBuffer& operator=(ByteBuffer&& other) noexcept {
    swap(other);
    return *this;
  }

  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  std::string_view view() const { return {memory_.get(), size_}; }

  /// Room for `count` bytes behind the content; commit() makes what was written there content.
  /// Throws std::bad_alloc.
  char* room(std::size_t count) {
    if (capacity_ - size_ < count) grow(count);
    return memory_.get() + size_;
  }
  /// `end` is behind the last byte written into the last room().
  void commit(const char* end) { size_ = static_cast<std::size_t>(end - memory_.get()); }

  void append(std::string_view bytes) {
    std::memcpy(room(bytes.size() + 1), bytes.data(), bytes.size());
    size_ += bytes.size();
  }
  /// Drops everything behind the first `size` bytes; the memory stays.
  void truncate(std::size_t size) { size_ = size; }
  void clear() { size_ = 0; }

 private:
  void swap(ByteBuffer& other) noexcept {
    std::swap(memory_, other.memory_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  void grow(std::size_t count) {
    const std::size_t wanted = size_ + count > 2 * capacity_ ? size_ + count : 2 * capacity_;
    char* grown = static_cast<char*>(std::realloc(memory_.get(), wanted));
    if (!grown) throw std::bad_alloc();
    static_cast<void>(memory_.release());
    memory_.reset(grown);
    capacity_ = wanted;
  }

  struct Free {
    void operator()(char* memory) const { std::free(memory); }
  };
  std::unique_ptr<char, Free> memory_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace verdo
