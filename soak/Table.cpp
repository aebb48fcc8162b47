#include "soak/Table.h"

#include "tests/Support/Sanitized.h"

#include <algorithm>
#include <functional>

#include <fmt/format.h>

namespace verdo::soak {
namespace {

using Number = std::function<std::uint64_t(const RoadReport&)>;

struct Fact {
  const char* name;
  Number number;
};

constexpr std::size_t kMiB = 1 << 20;
/// What an allocator may keep between two moments of idleness.
constexpr std::size_t kMemorySlack = 16 * kMiB;
/// Connections that are kept for the next requests.
constexpr int kSocketSlack = 8;

std::uint64_t grownBy(int from, int to) {
  return to > from ? static_cast<std::uint64_t>(to - from) : 0;
}

const std::vector<Fact>& facts() {
  using R = RoadReport;
  static const std::vector<Fact> all{
      {"browser jobs", [](const R& r) { return r.tally.browserJobs; }},
      {"LLM jobs", [](const R& r) { return r.tally.llmJobs; }},
      {"  of them cancelled", [](const R& r) { return r.tally.cancelled; }},
      {"  files or provider out of reach", [](const R& r) { return r.tally.failed; }},
      {"  taken away, a lease having run out", [](const R& r) { return r.tally.taken; }},
      {"  offered again, unacknowledged", [](const R& r) { return r.tally.offeredAgain; }},
      {"requests", [](const R& r) { return r.requests; }},
      {"  of them spoilt", [](const R& r) { return r.faultedRequests; }},
      {"outages", [](const R& r) { return r.weather.outages; }},
      {"driver stopped for a while",
       [](const R& r) { return r.weather.suspends + r.weather.longSuspends; }},
      {"connections gone dead", [](const R& r) { return r.weather.deadPaths; }},
      {"HTTP/2 resets and refusals", [](const R& r) { return r.weather.resets; }},
      {"lines taken", [](const R& r) { return r.tally.lines; }},
      {"  again, as a reply was lost", [](const R& r) { return r.tally.sentAgain; }},
      {"seconds", [](const R& r) { return static_cast<std::uint64_t>(r.seconds); }}};
  return all;
}

const std::vector<Fact>& faults() {
  using R = RoadReport;
  static const std::vector<Fact> all{
      {"lines lost", [](const R& r) { return r.tally.lost; }},
      {"lines doubled without need", [](const R& r) { return r.tally.doubled; }},
      {"lines out of order", [](const R& r) { return r.tally.disordered; }},
      {"lines damaged or foreign", [](const R& r) { return r.tally.foreign; }},
      {"wrong exit code or error", [](const R& r) { return r.tally.wrongEnd; }},
      {"never completed", [](const R& r) { return r.tally.unfinished; }},
      {"run twice without cause", [](const R& r) { return r.tally.runTwice + r.tally.unasked; }},
      {"lease lost without cause", [](const R& r) { return r.tally.leaseLost; }},
      {"processes left", [](const R& r) { return r.processesLeft; }},
      {"files left", [](const R& r) { return r.filesLeft; }},
      {"task spaces left", [](const R& r) { return r.spacesLeft; }},
      {"wrong exit of the driver", [](const R& r) { return r.wrongExits; }},
      {"memory grown, MiB over its slack",
       [](const R& r) -> std::uint64_t {
         const auto most = r.atQuarter.memory + kMemorySlack;
         // A sanitizer keeps freed memory for a while, and notes about it.
         if (test::kSanitized || r.atEnd.memory <= most) return 0;
         return (r.atEnd.memory - most) / kMiB + 1;
       }},
      {"threads grown", [](const R& r) { return grownBy(r.atQuarter.threads, r.atEnd.threads); }},
      {"descriptors grown", [](const R& r) {
         return grownBy(r.atQuarter.otherDescriptors, r.atEnd.otherDescriptors) +
                grownBy(r.atQuarter.sockets + kSocketSlack, r.atEnd.sockets);
       }}};
  return all;
}

std::string row(const std::string& name, const std::vector<std::string>& cells) {
  std::string line = fmt::format("{:<38}", name);
  for (const auto& cell : cells) line += fmt::format("{:>16}", cell);
  return line + "\n";
}

std::string rowOf(const std::vector<RoadReport>& reports, const std::string& name,
                  const std::function<std::string(const RoadReport&)>& cell) {
  std::vector<std::string> cells;
  for (const auto& report : reports) cells.push_back(cell(report));
  return row(name, cells);
}

std::string numbers(const std::vector<RoadReport>& reports, const Fact& fact) {
  return rowOf(reports, fact.name,
               [&](const RoadReport& report) { return std::to_string(fact.number(report)); });
}

}  // namespace

bool isSound(const RoadReport& report) {
  return std::ranges::all_of(faults(), [&](const Fact& fact) { return fact.number(report) == 0; });
}

std::string format(const std::vector<RoadReport>& reports) {
  const auto both = [&](const char* name, auto value) {
    return rowOf(reports, name, [&](const RoadReport& report) {
      return fmt::format("{} → {}", value(report.atQuarter), value(report.atEnd));
    });
  };
  std::string table = rowOf(reports, "", [](const RoadReport& report) { return report.name; });
  for (const auto& fact : facts()) table += numbers(reports, fact);
  table += both("idle at a quarter → at the end: MiB", [](const Footprint& footprint) {
    return fmt::format("{:.1f}", static_cast<double>(footprint.memory) / kMiB);
  });
  table += both("  threads", [](const Footprint& footprint) { return footprint.threads; });
  table += both("  sockets", [](const Footprint& footprint) { return footprint.sockets; });
  table += both("  other descriptors",
                [](const Footprint& footprint) { return footprint.otherDescriptors; });
  table += rowOf(reports, "must be 0", [](const RoadReport&) { return "----"; });
  for (const auto& fact : faults()) table += numbers(reports, fact);
  return table;
}

}  // namespace verdo::soak
