#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace verdo::test {

/// Sets (or, with nothing, removes) an environment variable for the length of a scope.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
    if (const char* now = std::getenv(name_.c_str())) before_ = now;
    put(value);
  }
  ~ScopedEnv() { put(before_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void put(const std::optional<std::string>& value) {
    if (value) {
      ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }

  std::string name_;
  std::optional<std::string> before_;
};

}  // namespace verdo::test
