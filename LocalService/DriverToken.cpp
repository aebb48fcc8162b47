#include "LocalService/DriverToken.h"

#include "LocalService/Secret.h"

#include <utility>

namespace verdo::local {

DriverToken::DriverToken(std::string value) : value_(std::move(value)) {}

std::string DriverToken::value() const {
  const MutexLock lock(mutex_);
  return value_;
}

void DriverToken::set(std::string value) {
  const MutexLock lock(mutex_);
  value_ = std::move(value);
  revoked_ = false;
}

void DriverToken::revoke() {
  const MutexLock lock(mutex_);
  revoked_ = true;
}

bool DriverToken::accepts(std::string_view authorization) const {
  const MutexLock lock(mutex_);
  return !revoked_ && isBearer(authorization, value_);
}

}  // namespace verdo::local
