#pragma once

#include "failures/Calls.h"

#include <cstdint>
#include <string>
#include <vector>

namespace verdo::failures {

/// One line of the table: a call, and how it fails.
struct Row {
  Call call;
  int error;             ///< errno; of getaddrinfo its own code; of a clock the seconds of its step
  const char* name;      ///< of the error
  bool lasting = false;  ///< later calls fail as well

  /// "pipe EMFILE", and "…" for a failure that lasts.
  std::string title() const;
};

/// One run of the program under test.
struct Attempt {
  Row row;
  std::uint64_t at;  ///< which call fails, from 1
};

/// Rows for the headless driver, and for the app.
const std::vector<Row>& driverRows();
const std::vector<Row>& appRows();

/// The attempts of a row whose call was made `calls` times in a run without failures: the first,
/// second, … up to `most`, or as many spread evenly where there are more.
std::vector<Attempt> attemptsOf(const Row& row, std::uint64_t calls, std::uint64_t most);

}  // namespace verdo::failures
