#pragma once

#include "VerdoDriverCore/Values/PyError.h"

#include <exception>
#include <string>

namespace verdo::test {

/// "{type}: {message}" of the error that `work` throws; "" when it throws none.
template <typename Work>
std::string failureOf(Work&& work) try {
  work();
  return "";
} catch (const std::exception& error) {
  return pyDescribe(error);
}

}  // namespace verdo::test
