#include "VerdoDriverCore/Values/PyJSON.h"
#include "bench/Benches.h"

#include <map>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace verdo::bench {
namespace {

constexpr std::size_t kText = 1 << 20;

const std::string& plainText() {
  static const std::string text(kText, 'a');
  return text;
}

const std::string& mixedText() {
  static const std::string text = [] {
    std::string mixed;
    while (mixed.size() < kText) {
      mixed += "Grüße, \"Welt\" — 日本語\tand\nsome plain words between them 😀 ";
    }
    return mixed;
  }();
  return text;
}

void countBytes(benchmark::State& state, const std::string& text) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void writeText(benchmark::State& state, const std::string& text) {
  std::string out;
  for (auto _ : state) {
    out.clear();
    PyJSON::writeString(text, out);
    benchmark::DoNotOptimize(out.data());
  }
  countBytes(state, text);
}

void dumpText(benchmark::State& state, const std::string& text) {
  const nlohmann::json value = text;
  for (auto _ : state) {
    std::string out = value.dump(-1, ' ', true);
    benchmark::DoNotOptimize(out.data());
  }
  countBytes(state, text);
}

/// Keeps the speed of each benchmark instead of printing it.
class Speeds : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      speeds_[run.benchmark_name()] = run.counters.at("bytes_per_second") / 1e6;
    }
  }
  double of(const std::string& name) const { return speeds_.at(name); }

 private:
  std::map<std::string, double> speeds_;
};

}  // namespace

void benchJson(std::vector<Row>& rows) {
  const struct {
    const char* name;
    const std::string& text;
    double target;  ///< MB/s
  } texts[] = {{"plain ASCII", plainText(), 1500}, {"mixed text", mixedText(), 300}};
  for (const auto& [name, text, target] : texts) {
    benchmark::RegisterBenchmark(name, writeText, text);
    benchmark::RegisterBenchmark((std::string(name) + " reference").c_str(), dumpText, text);
  }
  Speeds speeds;
  benchmark::RunSpecifiedBenchmarks(&speeds);
  for (const auto& [name, text, target] : texts) {
    const double speed = speeds.of(name);
    rows.push_back(
        {fmt::format("JSON strings, {}", name), fmt::format("{:.0f} MB/s", speed),
         fmt::format("{:.0f} MB/s", target), speed >= target,
         fmt::format("nlohmann-json {:.0f} MB/s", speeds.of(std::string(name) + " reference"))});
  }
}

}  // namespace verdo::bench
