#pragma once

#include "failures/Plan.h"
#include "failures/Run.h"

#include <vector>

namespace verdo::failures {

/// Prints one attempt: what came of it, what the program said, and who made the call.
void printOutcome(const Attempt& attempt, const Outcome& outcome);

/// Prints a row: how often its call was made, how many attempts failed it, and how they went,
/// like ones together with the numbers of the calls; of those that are off, everything. True when
/// there is one.
bool printRow(const Row& row, std::uint64_t calls, const std::vector<Attempt>& attempts,
              const std::vector<Outcome>& outcomes);

}  // namespace verdo::failures
