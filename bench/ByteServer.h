#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace verdo::bench {

/// Answers every request on a port of loopback with the same number of bytes, from memory that does
/// not grow with it, one request after another.
class ByteServer {
 public:
  /// Throws std::runtime_error.
  explicit ByteServer(std::uint64_t bytes);
  ~ByteServer();
  ByteServer(const ByteServer&) = delete;
  ByteServer& operator=(const ByteServer&) = delete;
  std::string url() const;

 private:
  void serve();
  void answer(int connection) const;

  const std::uint64_t bytes_;
  UniqueFd listener_;
  int port_ = 0;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

}  // namespace verdo::bench
