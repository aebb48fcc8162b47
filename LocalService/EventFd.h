#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <cerrno>
#include <cstdint>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

namespace verdo::local {

/// A flag that poll(2) can wait for. Every member may be called from any thread.
class EventFd {
 public:
  /// Throws std::system_error when the process has no descriptor left.
  EventFd() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  /// Readable from now on, for everyone who polls, until clear().
  void set() {
    const std::uint64_t one = 1;
    // Fails only when the flag is up already.
    [[maybe_unused]] const auto written = ::write(fd_.get(), &one, sizeof one);
  }
  void clear() {
    std::uint64_t count = 0;
    // Fails only when the flag is down already.
    [[maybe_unused]] const auto got = ::read(fd_.get(), &count, sizeof count);
  }
  int fd() const { return fd_.get(); }

 private:
  UniqueFd fd_;
};

}  // namespace verdo::local
