#include "bench/Benches.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <signal.h>

int main(int argc, char** argv) {
  using namespace verdo::bench;
  const std::vector<std::pair<std::string, void (*)(std::vector<Row>&)>> benches{
      {"run", benchRun},           {"jobs", benchJobs}, {"output", benchOutput},
      {"download", benchDownload}, {"llm", benchLLM},   {"payload", benchPayload},
      {"json", benchJson},         {"app", benchApp},   {"lifetime", benchLifetime}};
  const std::vector<std::string> wanted(argv + 1, argv + argc);
  ::signal(SIGPIPE, SIG_IGN);
  std::vector<Row> rows;
  try {
    for (const auto& [name, bench] : benches) {
      const bool isNamed = std::find(wanted.begin(), wanted.end(), name) != wanted.end();
      if (!isNamed && (!wanted.empty() || name == "lifetime")) continue;  // it takes minutes
      fmt::print(stderr, "measuring: {}\n", name);
      bench(rows);
    }
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench: {}\n", error.what());
    return 1;
  }
  if (rows.empty()) {
    fmt::print(stderr,
               "bench: name any of run, jobs, output, download, llm, payload, json, app and "
               "lifetime, or none for all but the last\n");
    return 2;
  }
  fmt::print("{}", format(rows));
  return std::all_of(rows.begin(), rows.end(), [](const Row& row) { return row.met; }) ? 0 : 3;
}
