#include "bench/Table.h"

#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace verdo::bench {
namespace {

using Cells = std::array<std::string, 5>;

Cells cellsOf(const Row& row) {
  return {row.what, row.measured, row.target, row.met ? "yes" : "NO", row.reference};
}

}  // namespace

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

std::string format(const std::vector<Row>& rows) {
  std::vector<Cells> lines{{"what", "measured", "target", "met", "reference in this run"}};
  for (const Row& row : rows) lines.push_back(cellsOf(row));
  std::array<std::size_t, 5> widths{};
  for (const Cells& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      widths[i] = std::max(widths[i], countCharacters(line[i]));
    }
  }
  std::string out;
  for (const Cells& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      out += line[i];
      // Counted in characters: a "µ" is two bytes.
      if (i + 1 < line.size()) out += std::string(widths[i] - countCharacters(line[i]) + 2, ' ');
    }
    out += '\n';
    if (&line == &lines.front()) {
      for (const std::size_t width : widths) out += std::string(width, '-') + "  ";
      out += '\n';
    }
  }
  return out;
}

}  // namespace verdo::bench
