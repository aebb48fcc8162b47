#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

namespace verdo::test {

/// While it lives the system has no room for another thread of this process.
class NoThreads {
 public:
  NoThreads() {
    pthread_attr_init(&before_);
    EXPECT_EQ(pthread_getattr_default_np(&before_), 0);
    pthread_attr_t huge = before_;
    EXPECT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 46), 0);
    EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
  }
  ~NoThreads() { EXPECT_EQ(pthread_setattr_default_np(&before_), 0); }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_;
};

}  // namespace verdo::test
