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
      {"json", benchJson},         {"app", benchApp}};
  const std::vector<std::string> wanted(argv + 1, argv + argc);
  ::signal(SIGPIPE, SIG_IGN);
  std::vector<Row> rows;
  try {
    for (const auto& [name, bench] : benches) {
      if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), name) == wanted.end())
        continue;
      fmt::print(stderr, "measuring: {}\n", name);
      bench(rows);
    }
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench: {}\n", error.what());
    return 1;
  }
  if (rows.empty()) {
    fmt::print(stderr,
               "bench: name any of run, jobs, output, download, llm, payload, json and app, or "
               "none for all\n");
    return 2;
  }
  fmt::print("{}", format(rows));
  return std::all_of(rows.begin(), rows.end(), [](const Row& row) { return row.met; }) ? 0 : 3;
}
