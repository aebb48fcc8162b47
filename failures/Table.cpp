#include "failures/Table.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

#include <fmt/format.h>

namespace verdo::failures {
namespace {

constexpr std::size_t kMaxNumbers = 12;  // of calls named in one group

std::string some(const std::vector<std::uint64_t>& numbers) {
  const std::size_t shown = std::min(numbers.size(), kMaxNumbers);
  return fmt::format("{}{}",
                     fmt::join(numbers.begin(), numbers.begin() + static_cast<long>(shown), " "),
                     shown < numbers.size() ? " …" : "");
}

}  // namespace

void printOutcome(const Attempt& attempt, const Outcome& outcome) {
  std::printf("%s%s, call %lu: %s\n%s%s\n", outcome.isOff ? "OFF " : "",
              attempt.row.title().c_str(), static_cast<unsigned long>(attempt.at),
              outcome.summary.c_str(), outcome.log.c_str(), outcome.trace.c_str());
}

bool printRow(const Row& row, std::uint64_t calls, const std::vector<Attempt>& attempts,
              const std::vector<Outcome>& outcomes) {
  std::map<std::pair<bool, std::string>, std::vector<std::uint64_t>> groups;
  std::size_t fired = 0;
  bool isOff = false;
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    const Outcome& outcome = outcomes[i];
    if (outcome.fired == 0 && !outcome.isOff) continue;
    if (outcome.fired > 0) ++fired;
    isOff = isOff || outcome.isOff;
    groups[{!outcome.isOff, outcome.summary}].push_back(attempts[i].at);
  }
  std::printf("%s: %lu calls, %zu of %zu fired\n", row.title().c_str(),
              static_cast<unsigned long>(calls), fired, attempts.size());
  for (const auto& [key, numbers] : groups) {
    std::printf("  %s%4zu  %s  [%s]\n", key.first ? "    " : "OFF ", numbers.size(),
                key.second.c_str(), some(numbers).c_str());
  }
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    if (outcomes[i].isOff) printOutcome(attempts[i], outcomes[i]);
  }
  std::fflush(stdout);
  return isOff;
}

}  // namespace verdo::failures
