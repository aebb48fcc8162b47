#pragma once

#include <string>
#include <vector>

namespace verdo::bench {

/// One line of the result: a figure beside its target and the reference that was measured in the
/// same run on the same machine.
struct Row {
  std::string what;
  std::string measured;
  std::string target;
  bool met = false;
  std::string reference;
};

/// The middle one of the values; the list must not be empty.
double median(std::vector<double> values);

/// The rows as a text table.
std::string format(const std::vector<Row>& rows);

}  // namespace verdo::bench
