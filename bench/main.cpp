#include "bench/Benches.h"

#include <algorithm>
#include <cstdio>
#include <exception>

#include <fmt/format.h>
#include <signal.h>

int main() {
  using namespace verdo::bench;
  ::signal(SIGPIPE, SIG_IGN);
  std::vector<Row> rows;
  try {
    for (auto* bench : {benchRun, benchJobs, benchOutput, benchJson}) {
      bench(rows);
      fmt::print(stderr, "{} of the figures measured\n", rows.size());
    }
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench: {}\n", error.what());
    return 1;
  }
  fmt::print("{}", format(rows));
  return std::all_of(rows.begin(), rows.end(), [](const Row& row) { return row.met; }) ? 0 : 3;
}
