#pragma once

#include <gtest/gtest.h>

namespace verdo::test {

/// The error of a result that must not hold a value. One that does fails the test, where `.error()`
/// alone would read whatever lies there.
template <typename Result>
typename Result::error_type errorOf(const Result& result) {
  if (!result.has_value()) return result.error();
  ADD_FAILURE() << "holds a value instead of an error";
  return {};
}

}  // namespace verdo::test
