#pragma once

#include "VerdoDriverCore/System/Sync.h"

#include <string>
#include <string_view>

namespace verdo::local {

/// The driver token that is good now. Every member may be called from any thread.
class DriverToken {
 public:
  explicit DriverToken(std::string value);

  std::string value() const;  ///< also when it is revoked
  void set(std::string value);
  void revoke();  ///< no token is good until set(): every driver request is answered 401
  bool accepts(std::string_view authorization) const;  ///< value of an Authorization header

 private:
  mutable Mutex mutex_;
  std::string value_ GUARDED_BY(mutex_);
  bool revoked_ GUARDED_BY(mutex_) = false;
};

}  // namespace verdo::local
