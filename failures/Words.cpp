#include "failures/Words.h"

#include <regex>
#include <sstream>

namespace verdo::failures {

std::vector<std::string> linesIn(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string lastLine(const std::string& text) {
  std::string last;
  for (const auto& line : linesIn(text)) {
    if (!line.empty()) last = line;
  }
  return last;
}

std::string generalised(const std::string& text) {
  static const std::pair<std::regex, const char*> rules[] = {
      {std::regex("/tmp/verdo-test-[A-Za-z0-9]+/home"), "~"},
      {std::regex("cache/verdo/verdo-[A-Za-z0-9]{6}\\b"), "cache/verdo/verdo-…"},
      {std::regex("\\bport [0-9]+"), "port N"},
      {std::regex("(\\.test|127\\.0\\.0\\.1):[0-9]+"), "$1:N"},
      {std::regex("\\bjobs?([ /])[0-9]+"), "job$1N"},
      {std::regex("in [0-9]+s"), "in Ns"},
      {std::regex("\\b[0-9]+ (ms|milliseconds|bytes|out of)\\b"), "N $1"},
  };
  std::string result = text;
  for (const auto& [pattern, replacement] : rules) {
    result = std::regex_replace(result, pattern, replacement);
  }
  return result;
}

}  // namespace verdo::failures
