#pragma once

#include "VerdoDriverCore/System/Sync.h"

#include <utility>

#include <nlohmann/json.hpp>

namespace verdo::local {

/// A JSON value that the service answers with: any value, an object or not. Every member may be
/// called from any thread.
class JsonDocument {
 public:
  using Json = nlohmann::ordered_json;

  explicit JsonDocument(Json initial) : initial_(std::move(initial)) {}

  Json value() const {
    const MutexLock lock(mutex_);
    return value_;
  }
  void set(Json value) {
    const MutexLock lock(mutex_);
    value_ = std::move(value);
  }
  /// A JSON merge patch: null removes a key.
  void patch(const Json& patch) {
    const MutexLock lock(mutex_);
    value_.merge_patch(patch);
  }
  void reset() { set(initial_); }  ///< to the value of the beginning

 private:
  const Json initial_;
  mutable Mutex mutex_;
  Json value_ GUARDED_BY(mutex_) = initial_;
};

}  // namespace verdo::local
