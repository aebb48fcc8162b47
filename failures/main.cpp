#include "failures/Plan.h"
#include "failures/Run.h"
#include "failures/Sample.h"
#include "failures/Table.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

namespace {

using namespace verdo::failures;  // NOLINT(google-build-using-namespace): this tool's own

constexpr std::uint64_t kMost = 200;        // attempts of a row
constexpr std::uint64_t kMostLasting = 20;  // each of them takes long
constexpr int kAtOnce = 2;

using Play = Outcome (*)(const std::optional<Attempt>&);

/// Plays the attempts, some at a time, and gives what came of them in their order.
std::vector<Outcome> playAll(Play play, const std::vector<Attempt>& attempts) {
  std::vector<Outcome> outcomes(attempts.size());
  std::atomic<std::size_t> next = 0;
  std::vector<std::jthread> players;
  for (int i = 0; i < kAtOnce; ++i) {
    players.emplace_back([&] {
      for (std::size_t at = next++; at < attempts.size(); at = next++) {
        outcomes[at] = play(attempts[at]);
      }
    });
  }
  players.clear();
  return outcomes;
}

/// The run without a failure, which everything else is measured by.
std::optional<Outcome> ordinary(Play play) {
  auto outcome = play({});
  if (!outcome.isOff && outcome.summary == kWentOn) return outcome;
  std::fprintf(stderr, "the run without a failure: %s\n%s", outcome.summary.c_str(),
               outcome.log.c_str());
  return {};
}

bool isChosen(const Row& row, const std::vector<std::string>& chosen) {
  if (chosen.empty()) return true;
  for (const auto& name : chosen) {
    if (kCallNames[static_cast<std::size_t>(row.call)] == name) return true;
  }
  return false;
}

bool areKnown(const std::vector<std::string>& names) {
  for (const auto& name : names) {
    if (std::find(kCallNames.begin(), kCallNames.end(), name) != kCallNames.end()) continue;
    std::fprintf(stderr, "there is no call \"%s\"; there are: %s\n", name.c_str(),
                 fmt::format("{}", fmt::join(kCallNames, ", ")).c_str());
    return false;
  }
  return true;
}

int table(Play play, const std::vector<Row>& rows, const std::vector<std::string>& chosen) {
  if (!areKnown(chosen)) return 2;
  const auto usual = ordinary(play);
  if (!usual) return 1;
  bool isOff = false;
  for (const auto& row : rows) {
    if (!isChosen(row, chosen)) continue;
    const auto calls = usual->calls[static_cast<std::size_t>(row.call)];
    const auto attempts = attemptsOf(row, calls, row.lasting ? kMostLasting : kMost);
    isOff |= printRow(row, calls, attempts, playAll(play, attempts));
  }
  return isOff ? 1 : 0;
}

int sample(Play play, const std::vector<Attempt>& attempts) {
  if (!ordinary(play)) return 1;
  const auto outcomes = playAll(play, attempts);
  bool isOff = false;
  std::size_t fired = 0;
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    if (outcomes[i].fired > 0) ++fired;
    isOff = isOff || outcomes[i].isOff;
    if (outcomes[i].isOff) printOutcome(attempts[i], outcomes[i]);
  }
  std::printf("%zu attempts, %zu of them failed a call\n", attempts.size(), fired);
  // The numbers of calls differ a little from run to run, and some come to be made no more.
  const bool isFew = fired < attempts.size() * 3 / 4;
  if (isFew) std::printf("OFF: the sample no longer meets what the program calls\n");
  return isOff || isFew ? 1 : 0;
}

/// One attempt, all of it told.
int show(Play play, const std::vector<Row>& rows, const std::string& title, const char* at) {
  for (const auto& row : rows) {
    if (row.title() != title) continue;
    const Attempt attempt{row, std::strtoull(at, nullptr, 10)};
    const auto outcome = play(attempt);
    printOutcome(attempt, outcome);
    return outcome.isOff ? 1 : 0;
  }
  std::fprintf(stderr, "there is no row \"%s\"\n", title.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  const auto take = [&](const char* word) {
    if (words.empty() || words.front() != word) return false;
    words.erase(words.begin());
    return true;
  };
  const bool isApp = take("app");
  const Play play = isApp ? runApp : runDriver;
  const auto& rows = isApp ? appRows() : driverRows();
  if (take("--sample")) return sample(play, isApp ? appSample() : driverSample());
  if (take("--show") && words.size() == 2) return show(play, rows, words[0], words[1].c_str());
  return table(play, rows, words);
}
