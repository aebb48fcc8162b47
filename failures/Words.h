#pragma once

#include <string>
#include <vector>

namespace verdo::failures {

/// The lines of a text, without their ends.
std::vector<std::string> linesIn(const std::string& text);
/// The last line that is not empty; empty when there is none.
std::string lastLine(const std::string& text);
/// The text without what differs from run to run: ports, directories, numbers of jobs.
std::string generalised(const std::string& text);

}  // namespace verdo::failures
