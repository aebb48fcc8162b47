#pragma once

#include "failures/Plan.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace verdo::failures {

/// What came of one run. A plain value.
struct Outcome {
  std::array<std::uint64_t, kCalls> calls{};  ///< made by the program under test
  std::uint64_t fired = 0;                    ///< of them made to fail
  /// How it went, in the same words for runs that went alike. Where something is off, why.
  std::string summary;
  bool isOff = false;
  std::string log;    ///< what the program said, all of it
  std::string trace;  ///< who made the call that failed first, outermost last; addresses
};

/// Plays the standard life of a program: a start, its work, its end. With an attempt one of its
/// calls fails. Several may run at once, each on a service and in a home directory of its own.
/// Never throws for what the program does; ends within a minute.
/// The summary of a run that did all that it should.
constexpr const char* kWentOn = "went on";

Outcome runDriver(const std::optional<Attempt>& attempt);
Outcome runApp(const std::optional<Attempt>& attempt);

}  // namespace verdo::failures
