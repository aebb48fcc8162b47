#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

namespace verdo::test {

/// While it lives no file of this process can grow beyond `bytes`.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes = 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit full{.rlim_cur = bytes, .rlim_max = before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
  }
  ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &before_); }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit before_{};
};

}  // namespace verdo::test
